#include "linux/ProcParser.h"

#include <algorithm>

#include "TLFoundation/ParseNumber.h"

namespace tessaloom {

std::string_view takeWord(std::string_view& text) {
  const auto isSpace = [](char each) { return each == ' ' || each == '\n'; };
  const auto begin = std::find_if_not(text.begin(), text.end(), isSpace);
  const auto end = std::find_if(begin, text.end(), isSpace);
  text = {end, text.end()};
  return {begin, end};
}

namespace {

void skipWords(std::string_view& text, int count) {
  for (int i = 0; i < count; ++i) takeWord(text);
}

}  // namespace

std::optional<ProcessStat> parseProcessStat(std::string_view text) {
  const std::size_t open = text.find('(');
  const std::size_t close = text.rfind(')');
  if (close == std::string_view::npos || close < open) return std::nullopt;
  // Fields are numbered as in proc_pid_stat(5); the third, the state, follows the name.
  std::string_view rest = text.substr(close + 1);
  const std::string_view state = takeWord(rest);
  auto parentPID = parseNumber<std::int32_t>(takeWord(rest));
  skipWords(rest, 2);
  // Shown as a signed number, though its bits are a device number.
  auto terminal = parseNumber<std::int32_t>(takeWord(rest));
  skipWords(rest, 1);
  auto flags = parseNumber<std::uint32_t>(takeWord(rest));
  skipWords(rest, 10);
  auto threads = parseNumber<std::uint32_t>(takeWord(rest));
  skipWords(rest, 1);
  auto startTicks = parseNumber<std::uint64_t>(takeWord(rest));
  if (!parentPID || !terminal || !flags || !threads || !startTicks) {
    return std::nullopt;
  }
  constexpr std::uint32_t kernelThread = 0x00200000;  // PF_KTHREAD of include/linux/sched.h.
  return ProcessStat{.name = text.substr(open + 1, close - open - 1),
                     .state = state.front(),
                     .parentPID = *parentPID,
                     .terminal = static_cast<std::uint32_t>(*terminal),
                     .isKernelThread = (*flags & kernelThread) != 0,
                     .threads = *threads,
                     .startTicks = *startTicks};
}

std::optional<std::uint64_t> parseResidentPages(std::string_view text) {
  skipWords(text, 1);
  return parseNumber<std::uint64_t>(takeWord(text));
}

std::optional<RunCounters> parseRunCounters(std::string_view text) {
  auto running = parseNumber<std::uint64_t>(takeWord(text));
  skipWords(text, 1);
  auto slices = parseNumber<std::uint64_t>(takeWord(text));
  if (!running || slices.value_or(0) == 0) return std::nullopt;
  return RunCounters{*running, *slices};
}

std::optional<std::int32_t> parseDescriptorRoom(std::string_view text) {
  // A name that holds a newline could fake a line, but the kernel escapes it in this file.
  constexpr std::string_view label = "\nFDSize:\t";
  const std::size_t begin = text.find(label);
  if (begin == std::string_view::npos) return std::nullopt;
  text.remove_prefix(begin + label.size());
  return parseNumber<std::int32_t>(takeWord(text));
}

std::optional<std::uint32_t> parseInodeLink(std::string_view kind, std::string_view link) {
  if (!link.starts_with(kind) || !link.ends_with(']')) return std::nullopt;
  link.remove_prefix(kind.size());
  link.remove_suffix(1);
  if (!link.starts_with(":[")) return std::nullopt;
  return parseNumber<std::uint32_t>(link.substr(2));
}

std::optional<std::int32_t> parseNumberName(std::string_view name) {
  if (name.starts_with('-')) return std::nullopt;
  return parseNumber<std::int32_t>(name);
}

}  // namespace tessaloom
