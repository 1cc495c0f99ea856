#include "Console.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>

#include "TLFoundation/DisplayString.h"
#include "TLFoundation/ErrnoText.h"
#include "TLFoundation/ParseNumber.h"
#include "TLFoundation/Unicode.h"
#include "TerminalJSON.h"

namespace tessaloom::Console {
namespace {

constexpr std::size_t usualWidth = 80;
/// More than any message of the helper or the bus says.
constexpr std::int64_t lineLimit = 4'000;

/// The errno of the first write to standard output that failed. One thread prints.
int outputError = 0;

std::string_view environment(const char* name) {
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): one thread, no setenv.
  return value == nullptr ? std::string_view() : std::string_view(value);
}

bool isDumb() {
  const std::string_view terminal = environment("TERM");
  return terminal.empty() || terminal == "dumb";
}

std::string_view colorCode(Style style) {
  switch (style) {
    case Style::bold:
      return "1";
    case Style::dim:
      return "2";
    case Style::good:
      return "32";
    case Style::bad:
      return "31";
  }
  return "0";
}

/// Whether the locale's characters are UTF-8, by the variables that select it (locale(7)).
bool localeIsUTF8() {
  for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
    const std::string_view value = environment(name);
    if (value.empty()) continue;
    // On macOS a name may be the character set alone.
    const std::size_t dot = value.find('.');
    std::string folded;
    for (const char character : value.substr(dot == std::string_view::npos ? 0 : dot + 1)) {
      if (character != '-')
        folded += static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
    }
    return folded.starts_with("utf8");
  }
  return false;
}

/// The text in ASCII: usual punctuation by what looks like it, other characters by a question mark.
std::string inASCII(std::string_view text) {
  struct Replacement {
    std::string_view character;
    std::string_view ascii;
  };
  static constexpr std::array replacements{
      Replacement{"\u2018", "'"},   Replacement{"\u2019", "'"}, Replacement{"\u201c", "\""},
      Replacement{"\u201d", "\""},  Replacement{"\u2013", "-"}, Replacement{"\u2014", "--"},
      Replacement{"\u2026", "..."}, Replacement{"\u00a0", " "}};
  std::string result;
  while (!text.empty()) {
    const std::string_view character = Unicode::firstScalar(text);
    const auto known = std::ranges::find(replacements, character, &Replacement::character);
    const bool isASCII = static_cast<unsigned char>(character.front()) < 0x80;
    result += isASCII ? character : known == replacements.end() ? "?" : known->ascii;
    text.remove_prefix(character.size());
  }
  return result;
}

bool showsASCII(bool isTerminal) {
  return isTerminal && !localeIsUTF8();
}

std::string shownOn(bool isTerminal, std::string_view text) {
  return showsASCII(isTerminal) ? inASCII(text) : std::string(text);
}

std::optional<winsize> sizeOf(int descriptor) {
  winsize size{};
  if (::ioctl(descriptor, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return std::nullopt;
  return size;
}

std::size_t widthOf(int descriptor) {
  if (const auto size = sizeOf(descriptor)) return size->ws_col;
  const std::size_t columns = parseNumber<std::size_t>(environment("COLUMNS")).value_or(0);
  return columns > 0 ? columns : usualWidth;
}

std::string styled(bool isTerminal, Style style, std::string_view text) {
  if (!isTerminal || isDumb() || !environment("NO_COLOR").empty()) return std::string(text);
  std::string result = "\033[";
  result.append(colorCode(style)).append("m").append(text).append("\033[0m");
  return result;
}

}  // namespace

bool inputIsTerminal() {
  return ::isatty(STDIN_FILENO) != 0;
}
bool outputIsTerminal() {
  return ::isatty(STDOUT_FILENO) != 0;
}
bool errorIsTerminal() {
  return ::isatty(STDERR_FILENO) != 0;
}
bool canRedrawOutput() {
  return outputIsTerminal() && !isDumb();
}
bool canRedrawErrorLine() {
  return errorIsTerminal() && !isDumb() && ::tcgetpgrp(STDERR_FILENO) == ::getpgrp();
}

std::size_t outputWidth() {
  return outputIsTerminal() ? widthOf(STDOUT_FILENO) : unlimitedWidth;
}
std::size_t outputHeight() {
  const auto size = sizeOf(STDOUT_FILENO);
  return size && size->ws_row > 0 ? size->ws_row : unlimitedWidth;
}
std::size_t errorWidth() {
  return widthOf(STDERR_FILENO);
}

std::string styledForOutput(Style style, std::string_view text) {
  return styled(outputIsTerminal(), style, text);
}

std::string styledForError(Style style, std::string_view text) {
  return styled(errorIsTerminal(), style, text);
}

void print(std::string_view text) {
  const std::string shown = shownOn(outputIsTerminal(), text);
  const std::size_t written = std::fwrite(shown.data(), 1, shown.size(), stdout);
  if (written < shown.size() && outputError == 0) outputError = errno;
}

void printBody(std::string_view body) {
  if (!outputIsTerminal()) return print(body);
  const std::string shown = shownBody(body);
  print(shown);
  if (!shown.ends_with('\n')) print("\n");
}

void printJSON(std::string_view text) {
  const std::string shown = outputIsTerminal()
                                ? terminalJSON(text, JSONLayout::indented, showsASCII(true))
                                : std::string(text);
  print(shown);
  if (!shown.ends_with('\n')) print("\n");
}

int flushOutput() {
  if (std::fflush(stdout) != 0 && outputError == 0) outputError = errno;
  return outputError;
}

void printError(std::string_view message, std::string_view advice) {
  std::string text = styledForError(Style::bad, "tessaloom-helperctl:");
  text.append(" ").append(message).append("\n");
  if (!advice.empty()) text.append("  ").append(advice).append("\n");
  printToError(text);
}

void printErrorJSON(std::string_view text) {
  // In one write, so that it stays one line where several programs write.
  printToError((errorIsTerminal() ? terminalJSON(text, JSONLayout::asWritten, showsASCII(true))
                                  : std::string(text)) +
               "\n");
}

void printToError(std::string_view text) {
  const std::string shown = shownOn(errorIsTerminal(), text);
  (void)std::fwrite(shown.data(), 1, shown.size(), stderr);  // There is nowhere to report it.
}

std::string safeLine(std::string_view text) {
  return DisplayString::singleLine(text, lineLimit);
}

std::string shellWord(std::string_view path) {
  std::string text = safeLine(path);
  const bool isPlain = std::ranges::all_of(text, [](unsigned char character) {
    return (character < 0x80 && std::isalnum(character) != 0) ||
           std::string_view("/._-+@").contains(static_cast<char>(character));
  });
  if (isPlain && !text.empty()) return text;
  std::string quoted = "'";
  for (const char character : text) {
    if (character == '\'') quoted += "'\\'";
    quoted += character;
  }
  return quoted + "'";
}

std::string shownBody(std::string_view body) {
  return outputIsTerminal() ? terminalJSON(body, JSONLayout::asWritten, showsASCII(true))
                            : std::string(body);
}

std::string safeCell(std::string_view text) {
  return shownOn(outputIsTerminal(), safeLine(text));
}

std::string_view ellipsis() {
  return showsASCII(outputIsTerminal()) ? "~" : "\u2026";
}

std::string safeText(std::string_view text) {
  // Nothing is cut: no text has more scalars than bytes.
  return DisplayString::multiLine(text, static_cast<std::int64_t>(text.size()));
}

}  // namespace tessaloom::Console
