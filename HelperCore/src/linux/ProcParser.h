#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

/// Pure parsers of the text files of /proc (proc(5), proc_pid_stat(5)); nullopt for what does not
/// have the form of the file.
namespace tessaloom {

/// The fields of /proc/PID/stat that the listings use.
struct ProcessStat {
  std::string_view name;  ///< Any bytes; points into the text that was parsed.
  char state = 0;         ///< R, S, Z and others.
  std::int32_t parentPID = 0;
  std::uint32_t terminal = 0;  ///< tty_nr, 0 for none.
  bool isKernelThread = false;
  std::uint32_t threads = 0;
  std::uint64_t startTicks = 0;  ///< Clock ticks after the boot.

  friend bool operator==(const ProcessStat&, const ProcessStat&) = default;
};

/// The whole text of one read; the name may hold spaces, parentheses and newlines.
std::optional<ProcessStat> parseProcessStat(std::string_view text);

/// The resident pages of /proc/PID/statm.
std::optional<std::uint64_t> parseResidentPages(std::string_view text);

/// Two counters of /proc/PID/schedstat, of the main thread of a process. They only grow.
struct RunCounters {
  std::uint64_t running = 0;  ///< Nanoseconds on a CPU; added to at each tick and switch.
  std::uint64_t slices = 0;   ///< How often it was given a CPU; counted before it runs.

  friend bool operator==(const RunCounters&, const RunCounters&) = default;
};

/// nullopt, too, where the kernel does not count and shows zeros for every process.
std::optional<RunCounters> parseRunCounters(std::string_view text);

/// The FDSize of /proc/PID/status: all descriptors of the process are below it.
std::optional<std::int32_t> parseDescriptorRoom(std::string_view text);

/// The inode in a link's text of the form "socket:[123]", `kind` being the part before the colon.
std::optional<std::uint32_t> parseInodeLink(std::string_view kind, std::string_view link);

/// A directory entry that is a number, as processes and descriptors are.
std::optional<std::int32_t> parseNumberName(std::string_view name);

/// A word that is cut off the front of `text`, as far as the next run of spaces.
std::string_view takeWord(std::string_view& text);

}  // namespace tessaloom
