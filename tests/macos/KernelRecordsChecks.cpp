// The decoding of what the run over the doubles does not show of a process's record, run by the
// compiler on the platform's own structure.

#include <algorithm>

#include "KernelRecords.h"

namespace tessaloom {
namespace {

constexpr kinfo_proc process(std::string_view name) {
  kinfo_proc record{};
  record.kp_proc.p_pid = 42;
  record.kp_proc.p_starttime = {.tv_sec = 1'700'000'000, .tv_usec = 999'999};
  record.kp_eproc.e_ppid = 7;
  record.kp_eproc.e_pcred.p_ruid = 500;
  record.kp_eproc.e_ucred.cr_uid = 501;
  std::ranges::copy(name, record.kp_proc.p_comm);
  return record;
}

static_assert([] {
  ProcessRecord decoded = decodeProcess(process("zsh"));
  return decoded.pid == 42 && decoded.parentPID == 7 && decoded.owner == 501 &&
         decoded.start == ProcessStartTime{1'700'000'000, 999'999} && decoded.terminal.empty() &&
         decoded.residentBytes == 0 && decoded.name == "zsh";
}());
static_assert(decodeProcess(process("")).name.empty());

}  // namespace
}  // namespace tessaloom
