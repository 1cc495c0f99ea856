// Measures the listings of processes and ports, as far as the bytes of the reply, beside the
// system's own programs, among processes of its own making.

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
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
#include "TLFoundation/FileDescriptor.h"

extern char** environ;

namespace tessaloom {
namespace {

using Milliseconds = std::chrono::duration<double, std::milli>;

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

Milliseconds timed(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::steady_clock::now() - start;
}

double median(std::vector<Milliseconds> times) {
  const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
  std::ranges::nth_element(times, middle);
  return middle->count();
}

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
  std::vector<std::string> peer;
  std::size_t (*list)(Kernel&);
};

struct Medians {
  double peer;
  double fresh;
  double repeated;
};

/// All three in turn, so that a change of the machine's mood meets all.
Medians measure(const Subject& subject, Kernel& known, int rounds) {
  std::vector<Milliseconds> peer;
  std::vector<Milliseconds> fresh;
  std::vector<Milliseconds> repeated;
  for (int round = 0; round < rounds; ++round) {
    peer.push_back(timed([&] { runPeer(subject.peer); }));
    std::unique_ptr<Kernel> kernel;
    fresh.push_back(timed([&] {
      kernel = makeSystemKernel();
      subject.list(*kernel);
    }));
    repeated.push_back(timed([&] { subject.list(known); }));
  }
  return {median(peer), median(fresh), median(repeated)};
}

void report(const Subject& subject, int processes, int sockets, const Medians& medians) {
  std::printf("  %-10s %6d %8d %9.2f %9.2f  x%-6.1f %9.2f  x%-6.1f %8.1f\n", subject.name,
              processes, sockets, medians.peer, medians.fresh, medians.peer / medians.fresh,
              medians.repeated, medians.peer / medians.repeated, medians.fresh * 1000 / processes);
}

void measureAll() {
  const std::vector<Subject> subjects{
      {"processes",
       {"ps", "-u", std::to_string(::geteuid()), "-o", "pid,ppid,tty,lstart,rss,comm"},
       listProcesses},
      {"ports", {"ss", "-lntup"}, listPorts}};
  constexpr int descriptorsEach = 14;
  struct Size {
    int processes;
    int sockets;
    int rounds;
  };
  constexpr Size sizes[] = {{150, 30, 31}, {1'000, 200, 21}, {1'000, 2'000, 11}, {5'000, 1'000, 7}};
  std::printf("  %-10s %6s %8s %9s %9s  %-7s %9s  %-7s %8s\n", "listing", "own", "sockets",
              "peer ms", "fresh ms", "", "again ms", "", "us each");
  for (const Size& size : sizes) {
    const Load load(size.processes, descriptorsEach, size.sockets);
    const auto known = makeSystemKernel();
    // What is known about a process that rests counts when it is some seconds old.
    for (int warmUp = 0; warmUp < 3; ++warmUp) {
      for (const Subject& subject : subjects) subject.list(*known);
      std::this_thread::sleep_for(std::chrono::milliseconds(2'200));
    }
    for (const Subject& subject : subjects) {
      report(subject, size.processes, size.sockets, measure(subject, *known, size.rounds));
    }
  }
}

}  // namespace
}  // namespace tessaloom

int main() {
  try {
    tessaloom::measureAll();
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "ListingsBenchmark: %s\n", error.what());
    return 1;
  }
}
