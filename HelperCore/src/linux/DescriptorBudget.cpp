#include "linux/DescriptorBudget.h"

#include <sys/resource.h>

#include <algorithm>
#include <cerrno>

namespace tessaloom::linux_kernel {

namespace {

std::size_t currentLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 0;
  return std::min<std::size_t>(limit.rlim_cur / DescriptorBudget::share, DescriptorBudget::most);
}

}  // namespace

DescriptorBudget::DescriptorBudget(std::size_t kept) : kept_(kept), limit_(currentLimit()) {}

bool DescriptorBudget::take(std::size_t count) {
  if (kept_.fetch_add(count) + count <= limit_) return true;
  kept_ -= count;
  return false;
}

bool outOfDescriptors() {
  return errno == EMFILE || errno == ENFILE;
}

}  // namespace tessaloom::linux_kernel
