// Darwin's system calls, answered from this system's /proc.

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <libproc.h>
#include <poll.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/event.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysctl.h>
#include <unistd.h>
#undef dev_t
#undef timeval

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Runtime.h"

extern "C" {
// This system's own functions, whose names the linker and the headers here give to Darwin's.
int __real_poll(pollfd* descriptors, nfds_t count, int milliseconds);
int __wrap_poll(pollfd* descriptors, nfds_t count, int milliseconds);
int __real_fchmod(int file, mode_t mode);
int __wrap_fchmod(int file, mode_t mode);
int __real_renameat(int from, const char* name, int to, const char* newName);
int __wrap_renameat(int from, const char* name, int to, const char* newName);
int __real_unlinkat(int parent, const char* name, int flags);
int __wrap_unlinkat(int parent, const char* name, int flags);
int systemSetFlags(posix_spawnattr_t* attributes, short flags) __asm__("posix_spawnattr_setflags");
int systemSpawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                const posix_spawnattr_t* attributes, char* const* arguments,
                char* const* environment) __asm__("posix_spawn");
}

namespace {

constexpr std::int64_t tick = 10'000;  // Microseconds of USER_HZ.

/// Empty, or what was read so far, when the process is gone.
std::string contents(const std::string& path) {
  const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  std::string text;
  char chunk[65536];
  for (ssize_t count; (count = ::read(file, chunk, sizeof chunk)) > 0;)
    text.append(chunk, static_cast<std::size_t>(count));
  ::close(file);
  return text;
}

std::string processFolder(int pid) {
  return "/proc/" + std::to_string(pid);
}

template <class Number>
std::vector<Number> numbersIn(const std::string& folder) {
  std::vector<Number> numbers;
  std::error_code error;
  for (std::filesystem::directory_iterator it(folder, error), end; it != end && !error;
       it.increment(error))
    if (const int number = std::atoi(it->path().filename().c_str());
        number > 0 || it->path().filename() == "0")
      numbers.push_back(number);
  std::ranges::sort(numbers);
  return numbers;
}

std::int64_t bootSecond() {
  static const std::int64_t second = [] {
    const std::string text = contents("/proc/stat");
    return std::stoll(text.substr(text.find("\nbtime ") + 7));
  }();
  return second;
}

struct ProcessFacts {
  kinfo_proc record;
  std::uint64_t residentBytes;
};

std::optional<ProcessFacts> factsOf(int pid) {
  const std::string text = contents(processFolder(pid) + "/stat");
  const auto open = text.find('('), close = text.rfind(')');
  const std::string status = contents(processFolder(pid) + "/status");
  const auto users = status.find("\nUid:");
  if (close == std::string::npos || users == std::string::npos) return std::nullopt;
  // Fields from the third on: state, parent, ..., terminal (7), ..., start (22), ..., pages (24).
  std::istringstream rest(text.substr(close + 2));
  std::vector<std::string> fields(std::istream_iterator<std::string>(rest), {});
  const auto field = [&](std::size_t number) { return std::stoll(fields.at(number - 3)); };
  ProcessFacts facts{};
  auto& process = facts.record.kp_proc;
  process.p_pid = pid;
  const std::int64_t start = field(22) * tick;
  process.p_starttime = {bootSecond() + start / 1'000'000,
                         static_cast<std::int32_t>(start % 1'000'000)};
  text.copy(process.p_comm, std::min<std::size_t>(close - open - 1, 16), open + 1);
  auto& extended = facts.record.kp_eproc;
  extended.e_ppid = static_cast<std::int32_t>(field(4));
  const auto terminal = static_cast<std::int32_t>(field(7));
  extended.e_tdev = terminal != 0 ? terminal : -1;
  std::istringstream(status.substr(users + 5)) >> extended.e_pcred.p_ruid >>
      extended.e_ucred.cr_uid;
  facts.residentBytes =
      static_cast<std::uint64_t>(field(24)) * static_cast<std::uint64_t>(::getpagesize());
  return facts;
}

/// The bit stands for the flag UF_IMMUTABLE, which an owner may set.
bool isImmutable(const struct stat& facts) {
  return (facts.st_mode & S_ISVTX) != 0;
}

bool isKept(int parent, const char* name) {
  struct stat outer{}, facts{};
  return (::fstat(parent, &outer) == 0 && isImmutable(outer)) ||
         (::fstatat(parent, name, &facts, AT_SYMLINK_NOFOLLOW) == 0 && isImmutable(facts));
}

std::string linkOf(int pid, int descriptor) {
  std::error_code error;
  return std::filesystem::read_symlink(processFolder(pid) + "/fd/" + std::to_string(descriptor),
                                       error);
}

/// How the kernel's list calls answer: a generous size without a buffer, what fits with one.
template <class Record>
int list(const std::vector<Record>& records, void* buffer, int size) {
  const int bytes = static_cast<int>(records.size() * sizeof(Record));
  if (buffer == nullptr) return bytes + 20 * static_cast<int>(sizeof(Record));
  const int filled = std::min(bytes, size - size % static_cast<int>(sizeof(Record)));
  // The list of a process that exits meanwhile is empty.
  if (filled > 0) std::memcpy(buffer, records.data(), static_cast<std::size_t>(filled));
  return filled;
}

/// The internet sockets of a network namespace, by inode, as /proc/net lists them.
using Sockets = std::unordered_map<std::string, socket_info>;

void addSockets(Sockets& sockets, int pid, std::string_view table) {
  std::istringstream lines(contents(processFolder(pid) + "/net/" + std::string(table)));
  std::string line;
  std::getline(lines, line);
  while (std::getline(lines, line)) {
    std::istringstream row(line);
    const std::vector<std::string> fields(std::istream_iterator<std::string>(row), {});
    if (fields.size() < 10) continue;
    socket_info& socket = sockets[fields[9]];
    const bool isTCP = table.starts_with("tcp");
    socket.soi_kind = isTCP ? SOCKINFO_TCP : SOCKINFO_IN;
    socket.soi_protocol = isTCP ? IPPROTO_TCP : IPPROTO_UDP;
    if (isTCP)
      socket.soi_proto.pri_tcp.tcpsi_state = fields[3] == "0A" ? TSI_S_LISTEN : TSI_S_ESTABLISHED;
    auto& internet = isTCP ? socket.soi_proto.pri_tcp.tcpsi_ini : socket.soi_proto.pri_in;
    // ADDRESS:PORT in hexadecimal, the address in words of the machine's order.
    const auto colon = fields[1].find(':');
    internet.insi_lport =
        htons(static_cast<std::uint16_t>(std::stoul(fields[1].substr(colon + 1), nullptr, 16)));
    internet.insi_vflag = table.ends_with('6') ? INI_IPV6 : INI_IPV4;
    auto* address = reinterpret_cast<std::uint32_t*>(&internet.insi_laddr);
    if (internet.insi_vflag == INI_IPV4) address += 3;
    for (std::size_t at = 0; at < colon; at += 8)
      *address++ = static_cast<std::uint32_t>(std::stoul(fields[1].substr(at, 8), nullptr, 16));
    // Of a socket for both versions; /proc does not list which are for IPv6 alone.
    const auto words = std::bit_cast<std::array<std::uint32_t, 4>>(internet.insi_laddr);
    if (words[0] == 0 && words[1] == 0 && words[2] == htonl(0xffff))
      internet.insi_vflag = INI_IPV4;
    else if (std::ranges::count(words, 0) == 4)
      internet.insi_vflag |= INI_IPV4;
  }
}

/// Read once for each listing, by namespace.
thread_local std::unordered_map<std::string, Sockets> namespaces;

const Sockets& socketsOf(int pid) {
  std::error_code error;
  const auto [found, isNew] =
      namespaces.try_emplace(std::filesystem::read_symlink(processFolder(pid) + "/ns/net", error));
  if (isNew)
    for (const auto* table : {"tcp", "tcp6", "udp", "udp6"}) addSockets(found->second, pid, table);
  return found->second;
}

}  // namespace

extern "C" {

int sysctl(int* name, unsigned count, void* old, size_t* oldSize, void*, size_t) {
  if (count != 4 || name[0] != CTL_KERN || name[1] != KERN_PROC) runtime::fault("another sysctl");
  std::vector<kinfo_proc> records;
  const auto pids = name[2] == KERN_PROC_ALL ? numbersIn<int>("/proc") : std::vector<int>{name[3]};
  for (const int pid : pids)
    if (const auto facts = factsOf(pid)) records.push_back(facts->record);
  const size_t bytes = records.size() * sizeof(kinfo_proc);
  if (old == nullptr) return *oldSize = bytes + 5 * sizeof(kinfo_proc), 0;
  const bool fits = bytes <= *oldSize;
  *oldSize = fits ? bytes : *oldSize - *oldSize % sizeof(kinfo_proc);
  if (*oldSize != 0) std::memcpy(old, records.data(), *oldSize);
  return fits ? 0 : (errno = ENOMEM, -1);
}

char* devname_r(int32_t device, unsigned type, char* buffer, int size) {
  if (type != S_IFCHR) runtime::fault("a terminal is a character device");
  const int major = device >> 8 & 0xfff;
  if (major < 136 || major > 143) return nullptr;
  std::snprintf(buffer, static_cast<size_t>(size), "pts/%d", (major - 136) * 256 + (device & 0xff));
  return buffer;
}

int proc_listpids(uint32_t type, uint32_t user, void* buffer, int size) {
  if (type != PROC_UID_ONLY) runtime::fault("another list of processes");
  namespaces.clear();
  std::vector<int> pids = numbersIn<int>("/proc");
  // The size is for everybody's.
  if (buffer == nullptr) return list(pids, buffer, size);
  for (const int pid : std::exchange(pids, {}))
    if (const auto facts = factsOf(pid); facts && facts->record.kp_eproc.e_ucred.cr_uid == user)
      pids.push_back(pid);
  return list(pids, buffer, size);
}

int proc_pidinfo(int pid, int flavor, uint64_t, void* buffer, int size) {
  if (flavor == PROC_PIDTASKINFO) {
    if (size < static_cast<int>(sizeof(proc_taskinfo)))
      runtime::fault("a buffer shorter than the record");
    const auto facts = factsOf(pid);
    if (!facts) return 0;
    static_cast<proc_taskinfo*>(buffer)->pti_resident_size = facts->residentBytes;
    return sizeof(proc_taskinfo);
  }
  if (flavor != PROC_PIDLISTFDS) runtime::fault("another flavor of process information");
  if (::access(processFolder(pid).c_str(), F_OK) != 0) return 0;
  std::vector<proc_fdinfo> descriptors;
  for (const int descriptor : numbersIn<int>(processFolder(pid) + "/fd"))
    descriptors.push_back({descriptor, linkOf(pid, descriptor).starts_with("socket:")
                                           ? PROX_FDTYPE_SOCKET
                                           : PROX_FDTYPE_VNODE});
  return list(descriptors, buffer, size);
}

int proc_pidfdinfo(int pid, int fd, int flavor, void* buffer, int size) {
  if (flavor != PROC_PIDFDSOCKETINFO) runtime::fault("another flavor of descriptor information");
  if (size < static_cast<int>(sizeof(socket_fdinfo)))
    runtime::fault("a buffer shorter than the record");
  const std::string link = linkOf(pid, fd);
  if (!link.starts_with("socket:[")) return 0;
  const std::string inode = link.substr(8, link.size() - 9);
  auto& socket = static_cast<socket_fdinfo*>(buffer)->psi;
  socket.soi_kind = SOCKINFO_UN;
  const Sockets& sockets = socketsOf(pid);
  if (const auto found = sockets.find(inode); found != sockets.end()) socket = found->second;
  return sizeof(socket_fdinfo);
}

int proc_name(int pid, void* buffer, uint32_t size) {
  const auto facts = factsOf(pid);
  if (!facts) return 0;
  std::snprintf(static_cast<char*>(buffer), size, "%s", facts->record.kp_proc.p_comm);
  return static_cast<int>(std::strlen(static_cast<char*>(buffer)));
}

// A queue becomes the one thing it is asked to watch, which polls as readable once the child exits.
int kqueue() {
  return ::eventfd(0, 0);
}
int kevent(int queue, const struct kevent* change, int count, struct kevent*, int,
           const struct timespec*) {
  if (count != 1 || change->filter != EVFILT_PROC || change->flags != (EV_ADD | EV_ONESHOT) ||
      change->fflags != NOTE_EXIT)
    runtime::fault("a queue that watches something else");
  const int process = static_cast<int>(::syscall(SYS_pidfd_open, change->ident, 0));
  if (process < 0) return -1;
  pollfd exited{.fd = process, .events = POLLIN, .revents = 0};
  const bool isZombie = __real_poll(&exited, 1, 0) == 1;
  if (!isZombie)
    ::dup3(process, queue, (::fcntl(queue, F_GETFD) & FD_CLOEXEC) != 0 ? O_CLOEXEC : 0);
  ::close(process);
  return isZombie ? (errno = ESRCH, -1) : 0;
}

// Waits for nothing that was not asked for, and for no device but a terminal.
int __wrap_poll(struct pollfd* descriptors, nfds_t count, int milliseconds) {
  std::vector<pollfd> waited(descriptors, descriptors + count);
  int refused = 0;
  for (auto& each : waited) {
    struct stat facts{};
    const bool isDevice =
        ::fstat(each.fd, &facts) == 0 && S_ISCHR(facts.st_mode) && ::isatty(each.fd) == 0;
    refused += isDevice;
    if (isDevice || each.events == 0) each.fd = -1;
    each.revents = isDevice ? POLLNVAL : 0;
  }
  int ready = 0;
  if (refused == 0) ready = __real_poll(waited.data(), count, milliseconds);
  for (nfds_t i = 0; i < count; ++i) descriptors[i].revents = waited[i].revents;
  return ready < 0 ? ready : ready + refused;
}

int fchflags(int file, uint32_t flags) {
  struct stat facts{};
  if (flags != 0 || ::fstat(file, &facts) != 0) runtime::fault("flags other than none");
  return __real_fchmod(file, facts.st_mode & ALLPERMS & ~S_ISVTX);
}
int __wrap_fchmod(int file, mode_t mode) {
  struct stat facts{};
  const bool isRefused = ::fstat(file, &facts) == 0 && isImmutable(facts);
  return isRefused ? (errno = EPERM, -1) : __real_fchmod(file, mode);
}
int __wrap_renameat(int from, const char* name, int to, const char* newName) {
  const bool isRefused = isKept(from, name) || isKept(to, newName);
  return isRefused ? (errno = EPERM, -1) : __real_renameat(from, name, to, newName);
}
int __wrap_unlinkat(int parent, const char* name, int flags) {
  return isKept(parent, name) ? (errno = EPERM, -1) : __real_unlinkat(parent, name, flags);
}

int posix_spawnattr_setflags(posix_spawnattr_t* attributes, short flags) noexcept {
  if ((flags & POSIX_SPAWN_CLOEXEC_DEFAULT) == 0)
    runtime::fault("the child would inherit descriptors");
  return systemSetFlags(attributes, static_cast<short>(flags & ~POSIX_SPAWN_CLOEXEC_DEFAULT));
}
int posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                const posix_spawnattr_t* attributes, char* const* arguments,
                char* const* environment) {
  if (actions == nullptr || attributes == nullptr)
    runtime::fault("the child would inherit descriptors");
  const int error = ::posix_spawn_file_actions_addclosefrom_np(
      const_cast<posix_spawn_file_actions_t*>(actions), 3);
  return error != 0 ? error : systemSpawn(pid, path, actions, attributes, arguments, environment);
}

size_t confstr(int name, char* buffer, size_t size) noexcept {
  if (name != _CS_DARWIN_USER_TEMP_DIR) runtime::fault("another configuration string");
  const std::string text = std::string(::getenv("DOUBLE_TEMPORARY")) + "/";
  std::snprintf(buffer, size, "%s", text.c_str());
  return text.size() + 1;
}
}
