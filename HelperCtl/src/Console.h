#pragma once

#include <cstddef>
#include <limits>
#include <string>
#include <string_view>

namespace tessaloom {

/// What the client's exit status says.
enum class ExitStatus : int {
  done = 0,
  refused = 1,      ///< The helper answered an error or refused, or input or output failed.
  usage = 2,        ///< The command line is wrong.
  unreachable = 3,  ///< No helper answers.
};

/// The three standard streams and what the terminals behind them can show.
namespace Console {

enum class Style { bold, dim, good, bad };

bool inputIsTerminal();
bool outputIsTerminal();
bool errorIsTerminal();
/// Whether standard output is a terminal that understands cursor movements.
bool canRedrawOutput();
/// The same of standard error, and whether this process is in its foreground.
bool canRedrawErrorLine();

/// Columns of the terminal behind standard output (COLUMNS, then 80, where it does not report
/// them); unlimited if that is not a terminal. Lines likewise, without LINES.
inline constexpr std::size_t unlimitedWidth = std::numeric_limits<std::size_t>::max();
std::size_t outputWidth();
std::size_t outputHeight();
/// The same for standard error, where it is a terminal.
std::size_t errorWidth();

/// `text` in that style if standard output (standard error) shows colors: a terminal, no NO_COLOR
/// (https://no-color.org), not a dumb one.
std::string styledForOutput(Style style, std::string_view text);
std::string styledForError(Style style, std::string_view text);

/// Writes the text, on a terminal whose locale lacks UTF-8 in ASCII. A failure shows in
/// `flushOutput`.
void print(std::string_view text);
/// Writes a message's body as it is; on a terminal as `shownBody`, and ends the line.
void printBody(std::string_view body);
/// Writes a JSON text and ends the line; on a terminal indented, and escaped like a body.
void printJSON(std::string_view text);
/// Writes what has been printed. 0, or the errno of the first write to standard output that failed.
int flushOutput();

/// One message on standard error, after the program's name; `advice`, if any, on a line of its own.
void printError(std::string_view message, std::string_view advice = {});
/// A JSON text on standard error, which is one line; on a terminal escaped like a body.
void printErrorJSON(std::string_view text);
/// Plain text on standard error.
void printToError(std::string_view text);

/// The mark of a text that was cut, one column wide.
std::string_view ellipsis();

/// Text from outside, fit for a terminal: one line, or several with TAB and LF kept.
std::string safeLine(std::string_view text);
std::string safeText(std::string_view text);
/// A path as one word of a shell command, fit for a terminal: in quotes where it needs them.
std::string shellWord(std::string_view path);
/// A message's body as standard output shows it. On a terminal JSON has escapes for control and
/// invisible characters and, if that lacks UTF-8, for all that are not ASCII; other text is
/// cleaned.
std::string shownBody(std::string_view body);
/// One line as standard output shows it, whose width is known.
std::string safeCell(std::string_view text);

}  // namespace Console
}  // namespace tessaloom
