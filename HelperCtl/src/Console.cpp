#include "Console.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <system_error>

#include "TLFoundation/DisplayString.h"

namespace tessaloom::console {
namespace {

constexpr std::size_t usualWidth = 80;
/// More than any message of the helper or the bus says.
constexpr std::int64_t lineLimit = 4'000;

std::string_view environment(const char* name) {
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): one thread, no setenv.
  return value == nullptr ? std::string_view() : std::string_view(value);
}

bool isDumb() {
  return environment("TERM") == "dumb";
}

std::string_view colourCode(Style style) {
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

std::string styled(bool isTerminal, Style style, std::string_view text) {
  if (!isTerminal || isDumb() || !environment("NO_COLOR").empty()) return std::string(text);
  std::string result = "\033[";
  result.append(colourCode(style)).append("m").append(text).append("\033[0m");
  return result;
}

}  // namespace

bool inputIsTerminal() {
  return isatty(STDIN_FILENO) != 0;
}
bool outputIsTerminal() {
  return isatty(STDOUT_FILENO) != 0;
}
bool errorIsTerminal() {
  return isatty(STDERR_FILENO) != 0;
}
bool canRedrawErrorLine() {
  return errorIsTerminal() && !isDumb();
}

std::size_t outputWidth() {
  if (!outputIsTerminal()) return unlimitedWidth;
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  const std::string_view columns = environment("COLUMNS");
  std::size_t width = 0;
  const auto [end, error] = std::from_chars(columns.data(), columns.data() + columns.size(), width);
  return error == std::errc() && end == columns.data() + columns.size() && width > 0 ? width
                                                                                     : usualWidth;
}

std::string styledForOutput(Style style, std::string_view text) {
  return styled(outputIsTerminal(), style, text);
}

std::string styledForError(Style style, std::string_view text) {
  return styled(errorIsTerminal(), style, text);
}

void print(std::string_view text) {
  (void)std::fwrite(text.data(), 1, text.size(), stdout);  // Told by flushOutput.
}

void printBody(std::string_view body) {
  print(body);
  if (outputIsTerminal() && !body.ends_with('\n')) print("\n");
}

bool flushOutput() {
  const bool flushed = std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
  if (!flushed) printError(outputErrorText(errno));
  return flushed;
}

std::string outputErrorText(int error) {
  return "the output could not be written: " + std::generic_category().message(error);
}

void printError(std::string_view message, std::string_view advice) {
  std::string text = styledForError(Style::bad, "tessaloom-helperctl:");
  text.append(" ").append(message).append("\n");
  if (!advice.empty()) text.append("  ").append(advice).append("\n");
  printToError(text);
}

void printToError(std::string_view text) {
  (void)std::fwrite(text.data(), 1, text.size(), stderr);  // Nowhere is left to complain.
}

std::string safeLine(std::string_view text) {
  return DisplayString::singleLine(text, lineLimit);
}

std::string safeText(std::string_view text) {
  // Nothing is cut: no text has more scalars than bytes.
  return DisplayString::multiLine(text, static_cast<std::int64_t>(text.size()));
}

}  // namespace tessaloom::console
