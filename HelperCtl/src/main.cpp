#include <csignal>
#include <exception>
#include <string>
#include <vector>

#include "Command.h"
#include "Console.h"

int main(int argc, char** argv) {
  using namespace tessaloom;
  const std::vector<std::string> words(argv + (argc > 0 ? 1 : 0), argv + argc);
  // Ignored, as some programs leave it to those that they start, it would hide how a child ended.
  (void)std::signal(SIGCHLD, SIG_DFL);
  try {
    return static_cast<int>(runCommandLine(words));
  } catch (const std::exception& error) {
    Console::printError(Console::safeLine(error.what()));
    return static_cast<int>(ExitStatus::refused);
  }
}
