#include "StandardOptions.h"

#include <cerrno>
#include <cstdio>
#include <string>

#include "Log.h"
#include "TLFoundation/ErrnoText.h"

namespace tessaloom {

std::optional<int> handleStandardOption(std::string_view option, std::string_view program,
                                        std::string_view starter) {
  const bool wantsVersion = option == "--version" || option == "-V";
  if (!wantsVersion && option != "--help" && option != "-h") return std::nullopt;
  std::string text = std::string(program) + " " TESSALOOM_VERSION "\n";
  if (!wantsVersion) {
    text += "The companion process of the Tessaloom document editor. ";
    text += starter;
    text += " starts it with\nthe first call. Its only options are -h, --help and -V, --version.\n";
    text += "To call it: tessaloom-helperctl --help\n";
  }
  if (std::fputs(text.c_str(), stdout) >= 0 && std::fflush(stdout) == 0) return 0;
  logLine("the output could not be written", errnoText(errno));
  return 1;
}

}  // namespace tessaloom
