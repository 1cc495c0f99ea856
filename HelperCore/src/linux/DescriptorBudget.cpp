#include "linux/DescriptorBudget.h"

#include <sys/resource.h>

#include <algorithm>

namespace tessaloom {

namespace {

std::size_t currentLimit() {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  const std::size_t allowed = limit.rlim_cur;
  const std::size_t reserved =
      std::max(allowed / DescriptorBudget::reservedShare, DescriptorBudget::reserve);
  return std::min(allowed - std::min(allowed, reserved), DescriptorBudget::maximumKept);
}

}  // namespace

DescriptorBudget::DescriptorBudget(std::size_t kept) : kept_(kept), limit_(currentLimit()) {}

bool DescriptorBudget::takeOne() {
  if (kept_.fetch_add(1) < limit_) return true;
  --kept_;
  return false;
}

}  // namespace tessaloom
