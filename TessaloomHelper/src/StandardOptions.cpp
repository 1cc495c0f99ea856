#include "StandardOptions.h"

#include <cstdio>
#include <string>

namespace tessaloom {

bool handleStandardOption(std::string_view option, std::string_view program,
                          std::string_view starter) {
  const bool wantsVersion = option == "--version" || option == "-V";
  if (!wantsVersion && option != "--help" && option != "-h") return false;
  std::string text = std::string(program) + " " TESSALOOM_VERSION "\n";
  if (!wantsVersion) {
    text += "The companion process of the Tessaloom document editor. ";
    text += starter;
    text += " starts it with\nthe first call. Its only options are -h, --help and -V, --version.\n";
    text += "To call it: tessaloom-helperctl --help\n";
  }
  std::fputs(text.c_str(), stdout);
  return true;
}

}  // namespace tessaloom
