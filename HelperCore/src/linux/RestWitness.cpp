#include "linux/RestWitness.h"

#include <array>

#include "linux/ProcFiles.h"

namespace tessaloom::linux_kernel {

RestWitness::RestWitness(int procDirectory, std::int32_t pid)
    : schedstat_(openAt(procDirectory, ProcPath{pid, "schedstat"}.text())) {
  startAgain();
}

void RestWitness::startAgain() {
  moment_ = read();
  since_ = Clock::now();
}

std::optional<RunCounters> RestWitness::read() const {
  if (!schedstat_) return std::nullopt;
  std::array<char, 128> buffer;
  return parseRunCounters(readStart(schedstat_.get(), buffer));
}

}  // namespace tessaloom::linux_kernel
