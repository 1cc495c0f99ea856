// Measures the listings of processes and ports, up to the bytes of the reply, beside the system's
// own programs, among processes of its own making.
//
//   ListingsBenchmark TABLE    TABLE is the table of the report that the rows belong to

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "HelperCore/ListeningPorts.h"
#include "HelperCore/ProcessListing.h"
#include "HelperProtocol/HelperCoding.h"
#include "Paired.h"
#include "TLFoundation/FileDescriptor.h"
#include "linux/ResourceLimits.h"

extern char** environ;

namespace tessaloom {
namespace {

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

/// Processes that hold descriptors and sockets until this object is gone.
class Load {
 public:
  Load(int processes, int descriptors, int sockets) {
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
        std::make_unique<Program>(std::vector{std::string(PROCESS_LOAD), std::to_string(processes),
                                              std::to_string(descriptors), std::to_string(sockets)},
                                  input[0], output[1]);
    outputEnd.reset();
    char byte = 0;
    if (::read(answers.get(), &byte, 1) != 1) throw std::runtime_error("the load is not ready");
  }
  ~Load() { keepAlive_.reset(); }

 private:
  std::unique_ptr<Program> program_;  // Waited for once its input is closed.
  FileDescriptor keepAlive_;
};

std::size_t listProcesses(Kernel& kernel) {
  std::vector<ProcessSample> samples;
  const Instant now = kernel.processClockTime();
  for (const RawProcess& row : listRawProcesses(kernel)) {
    samples.push_back(makeProcessSample(row, now));
  }
  return HelperCoding::makeEncoder().encode(samples).size();
}

std::size_t listPorts(Kernel& kernel) {
  return HelperCoding::makeEncoder().encode(listListeningPorts(kernel)).size();
}

void runPeer(const std::vector<std::string>& words) {
  const FileDescriptor nowhere(::open("/dev/null", O_RDWR | O_CLOEXEC));
  const Program peer(words, nowhere.get(), nowhere.get());
}

struct Subject {
  const char* name;
  std::vector<std::vector<std::string>> peers;
  std::size_t (*list)(Kernel&);
};

// A first listing by a new kernel object, and a repeated one by an object that has listed before.
void measure(const std::string& table, const Subject& subject, Kernel& known, int processes,
             int rounds) {
  for (const auto& peer : subject.peers) {
    const auto runsPeer = [&] { return timed([&] { runPeer(peer); }); };
    const std::string name = subject.name;
    measurePairs(
        {table, name + ", first", peer.front(), processes}, rounds,
        [&] {
          std::unique_ptr<Kernel> fresh;
          return timed([&] {
            fresh = makeSystemKernel();
            subject.list(*fresh);
          });
        },
        runsPeer);
    measurePairs(
        {table, name + ", repeated", peer.front(), processes}, rounds,
        [&] { return timed([&] { subject.list(known); }); }, runsPeer);
  }
}

void measureAll(const std::string& table) {
  const std::vector<Subject> subjects{
      {"processes",
       {{"ps", "-u", std::to_string(::geteuid()), "-o", "pid,ppid,tty,lstart,rss,comm"}},
       listProcesses},
      {"ports", {{"ss", "-lntup"}, {"lsof", "-nP", "-i"}}, listPorts}};
  constexpr int descriptorsEach = 14;
  struct Size {
    int processes;
    int sockets;
    int rounds;
  };
  for (const Size& size : {Size{150, 30, 31}, Size{1'000, 200, 15}, Size{5'000, 1'000, 7}}) {
    const Load load(size.processes, descriptorsEach, size.sockets);
    const auto known = makeSystemKernel();
    // What is known of a process counts when its probe is old enough.
    for (int warmUp = 0; warmUp < 3; ++warmUp) {
      for (const Subject& subject : subjects) subject.list(*known);
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    for (const Subject& subject : subjects) {
      measure(table, subject, *known, size.processes, size.rounds);
    }
  }
}

}  // namespace
}  // namespace tessaloom

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: ListingsBenchmark TABLE\n");
    return 2;
  }
  try {
    tessaloom::ResourceLimits::current().raise();  // As the helper does when it starts.
    tessaloom::measureAll(argv[1]);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "ListingsBenchmark: %s\n", error.what());
    return 1;
  }
}
