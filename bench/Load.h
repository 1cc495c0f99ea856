#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "TLFoundation/FileDescriptor.h"

extern char** environ;

namespace tessaloom {

/// A program that runs beside this one, with its output going nowhere or to a pipe.
class Program {
 public:
  Program(std::vector<std::string> words, int input, int output) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    std::vector<char*> arguments;
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    const int error =
        posix_spawnp(&pid_, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw std::runtime_error(words[0] + " does not start");
  }
  ~Program() { ::waitpid(pid_, nullptr, 0); }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

 private:
  pid_t pid_ = -1;
};

/// Processes that hold descriptors until this object is gone; every fifth holds a socket too.
class Load {
 public:
  explicit Load(int processes) {
    int input[2];
    int output[2];
    if (::pipe2(input, O_CLOEXEC) != 0 || ::pipe2(output, O_CLOEXEC) != 0) {
      throw std::runtime_error("no pipes");
    }
    FileDescriptor inputEnd(input[0]);
    FileDescriptor outputEnd(output[1]);
    keepAlive_ = FileDescriptor(input[1]);
    FileDescriptor answers(output[0]);
    program_ =
        std::make_unique<Program>(std::vector<std::string>{program(), std::to_string(processes),
                                                           "14", std::to_string(processes / 5)},
                                  input[0], output[1]);
    outputEnd.reset();
    char byte = 0;
    if (::read(answers.get(), &byte, 1) != 1) throw std::runtime_error("the load is not ready");
  }
  ~Load() { keepAlive_.reset(); }

 private:
  /// Beside this one, where every user that runs a benchmark can reach it.
  static std::string program() {
    return std::filesystem::read_symlink("/proc/self/exe").replace_filename("process-load");
  }

  std::unique_ptr<Program> program_;  // Waited for once its input is closed.
  FileDescriptor keepAlive_;
};

inline void runPeer(const std::vector<std::string>& words) {
  const FileDescriptor nowhere(::open("/dev/null", O_RDWR | O_CLOEXEC));
  const Program peer(words, nowhere.get(), nowhere.get());
}

inline std::vector<std::string> psCommand() {
  return {"ps", "-u", std::to_string(::geteuid()), "-o", "pid,ppid,tty,lstart,rss,comm"};
}
inline std::vector<std::string> ssCommand() {
  return {"ss", "-lntup"};
}

/// How many processes are listed, and how often.
struct Size {
  int processes;
  int rounds;
};

}  // namespace tessaloom
