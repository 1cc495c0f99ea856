// Measures the helper as the editor meets it, on the bus that DBUS_SESSION_BUS_ADDRESS names. It
// must be installed as `tessaloom` beside the helper, which admits no other; script/bench does
// that.
//
//   tessaloom calls             round trip, cold start and idle memory, beside the echo service
//   tessaloom beside-listings   round trip while another connection lists processes
//   tessaloom first-listings    a new helper's first listings, beside ps and ss
//   tessaloom generations HOME  one generation, beside its engine run by hand; HOME is the home
//                               directory that the helper sees

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <span>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <systemd/sd-bus.h>

#include "BusNames.h"
#include "HelperCore/CLIInvocationBuilder.h"
#include "HelperProtocol/GenerationRequest.h"
#include "HelperProtocol/HelperCoding.h"
#include "HelperProtocol/Methods.h"
#include "HelperProtocol/linux/BusHandles.h"
#include "Load.h"
#include "Paired.h"
#include "TLFoundation/Pipe.h"
#include "TLFoundation/PointerArray.h"

namespace tessaloom {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* echo = "sd-bus echo";
constexpr int roundTrips = 2'000;
constexpr int coldStarts = 20;
constexpr int generations = 50;
constexpr std::uint64_t callTimeout = 60'000'000;  // Microseconds.

void require(int result, const char* what) {
  if (result < 0) throw std::system_error(-result, std::generic_category(), what);
}

// The bus

BusHandle openBus() {
  sd_bus* bus = nullptr;
  require(sd_bus_open_user(&bus), "connecting to the bus");
  return BusHandle(bus);
}

/// The D-Bus error of a failed call, freed with it.
class BusError {
 public:
  BusError() = default;
  ~BusError() { sd_bus_error_free(&error_); }
  BusError(const BusError&) = delete;
  BusError& operator=(const BusError&) = delete;

  sd_bus_error* get() { return &error_; }
  const char* message() const { return error_.message; }

 private:
  sd_bus_error error_{};
};

BusMessage call(sd_bus* bus, const char* service, const char* method,
                const std::string* body = nullptr) {
  sd_bus_message* made = nullptr;
  require(sd_bus_message_new_method_call(bus, &made, service, HelperConstants::objectPath,
                                         HelperConstants::interfaceName, method),
          method);
  const BusMessage message(made);
  if (body != nullptr)
    require(sd_bus_message_append_array(made, 'y', body->data(), body->size()), method);
  BusError error;
  sd_bus_message* reply = nullptr;
  const int result = sd_bus_call(bus, made, callTimeout, error.get(), &reply);
  if (result < 0)
    throw std::runtime_error(std::string(method) + " of " + service + ": " +
                             (error.message() != nullptr ? error.message() : "no reply"));
  return BusMessage(reply);
}

pid_t processOf(sd_bus* bus, const char* service) {
  sd_bus_creds* creds = nullptr;
  if (sd_bus_get_name_creds(bus, service, SD_BUS_CREDS_PID, &creds) < 0) return 0;
  pid_t pid = 0;
  sd_bus_creds_get_pid(creds, &pid);
  sd_bus_creds_unref(creds);
  return pid;
}

/// Ends the service. Its process may stay a zombie until its parent reaps it, so the end of the
/// name counts, with a moment for what follows.
void stop(sd_bus* bus, const char* service) {
  const pid_t pid = processOf(bus, service);
  if (pid <= 0) return;
  ::kill(pid, SIGTERM);
  while (processOf(bus, service) != 0) std::this_thread::sleep_for(1ms);
  std::this_thread::sleep_for(10ms);
}

/// A field of /proc/PID/smaps_rollup, in KiB.
double memory(pid_t pid, const std::string& field) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/smaps_rollup");
  for (std::string name; file >> name;)
    if (double value = 0; name == field && file >> value) return value;
  throw std::runtime_error("no " + field + " of process " + std::to_string(pid));
}

void measureCalls() {
  const BusHandle bus = openBus();
  const auto timedCall = [&bus](const char* service) {
    return timed([&] { call(bus.get(), service, methodNamed("ProtocolVersion").name); });
  };
  const auto coldStart = [&](const char* service) {
    stop(bus.get(), service);
    return timedCall(service);
  };

  measurePairs(
      {"calls", "cold start to first reply, by activation", echo}, coldStarts,
      [&] { return coldStart(helperName); }, [&] { return coldStart(echoName); });
  const pid_t helperProcess = processOf(bus.get(), helperName);
  const pid_t echoProcess = processOf(bus.get(), echoName);
  for (const auto& [name, field] : {std::pair{"proportional", "Pss:"}, {"resident", "Rss:"}}) {
    printPair({"memory", name, echo}, {memory(helperProcess, field)}, {memory(echoProcess, field)});
  }
  measurePairs(
      {"calls", "ProtocolVersion, round trip", echo}, roundTrips,
      [&] { return timedCall(helperName); }, [&] { return timedCall(echoName); });
}

/// What a caller meets while another connection lists as fast as it can.
void measureCallsBesideListings() {
  constexpr int listings = 40;
  const BusHandle bus = openBus();
  const auto timedCall = [&](const char* service) {
    return timed([&] { call(bus.get(), service, methodNamed("ProtocolVersion").name); });
  };
  std::atomic<bool> listing = true;
  std::thread lister([&] {
    const BusHandle own = openBus();
    for (int i = 0; i < listings; ++i) {
      call(own.get(), helperName, methodNamed("ListProcesses").name);
    }
    listing = false;
  });
  std::vector<double> own;
  std::vector<double> peer;
  while (listing) {
    own.push_back(timedCall(helperName).count());
    peer.push_back(timedCall(echoName).count());
  }
  lister.join();
  printPair({"load", "ProtocolVersion, round trip", echo}, own, peer);
  printPair({"load", "ProtocolVersion, the slowest", echo}, {std::ranges::max(own)},
            {std::ranges::max(peer)});
}

/// What the editor meets first: a helper that has answered two calls, and so has its threads, but
/// has listed nothing.
void measureFirstListings() {
  const BusHandle bus = openBus();
  const auto firstCall = [&](const char* method) {
    stop(bus.get(), helperName);
    for (int i = 0; i < 2; ++i) call(bus.get(), helperName, methodNamed("ProtocolVersion").name);
    return timed([&] { call(bus.get(), helperName, method); });
  };
  const struct {
    const char* name;
    const char* method;
    std::vector<std::string> peer;
  } subjects[] = {{"processes", methodNamed("ListProcesses").name, psCommand()},
                  {"ports", methodNamed("ListListeningPorts").name, ssCommand()}};
  for (const Size& size : {Size{150, 31}, Size{1'000, 15}}) {
    const Load load(size.processes);
    for (const auto& [name, method, peer] : subjects) {
      measurePairs(
          {"listings-fresh", name, peer.front(), size.processes}, size.rounds,
          [&] { return firstCall(method); }, [&] { return timed([&] { runPeer(peer); }); });
    }
  }
  stop(bus.get(), helperName);
}

// Processes

Pipe newPipe() {
  auto pipe = makePipe();
  require(pipe ? 0 : -pipe.error(), "pipe");
  return *std::move(pipe);
}

/// Runs a command as the shell would: input in, output out, status 0. The input is smaller than a
/// pipe.
void runByHand(const CLIInvocation& invocation) {
  std::vector<std::string> arguments{invocation.executable};
  arguments.insert(arguments.end(), invocation.arguments.begin(), invocation.arguments.end());
  std::vector<std::string> variables;
  for (const auto& [name, value] : invocation.environment) variables.push_back(name + "=" + value);

  Pipe input = newPipe();
  Pipe output = newPipe();
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, input.readEnd.get(), STDIN_FILENO);
  ::posix_spawn_file_actions_adddup2(&actions, output.writeEnd.get(), STDOUT_FILENO);
  if (invocation.workingDirectory)
    ::posix_spawn_file_actions_addchdir_np(&actions, invocation.workingDirectory->c_str());
  pid_t child = 0;
  const int spawned = ::posix_spawn(&child, invocation.executable.c_str(), &actions, nullptr,
                                    pointerArray(arguments).data(), pointerArray(variables).data());
  ::posix_spawn_file_actions_destroy(&actions);
  require(-spawned, invocation.executable.c_str());

  input.readEnd.reset();
  output.writeEnd.reset();
  const std::string text = invocation.standardInput.value_or("");
  if (::write(input.writeEnd.get(), text.data(), text.size()) != std::ssize(text))
    require(-errno, "write");
  input.writeEnd.reset();
  char chunk[4096];
  while (::read(output.readEnd.get(), chunk, sizeof chunk) > 0) {
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  if (status != 0) throw std::runtime_error(invocation.executable.string() + " failed");
}

Environment ownEnvironment() {
  Environment environment;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    const std::size_t equals = text.find('=');
    environment.emplace(text.substr(0, equals), text.substr(equals + 1));
  }
  return environment;
}

void measureGenerations(const fs::path& home) {
  const std::string prompt = "Describe how a river shapes its valley.\n" + std::string(2'000, '.');
  const UUID id = UUID::random();
  const fs::path directory = "/tmp/tessaloom-generation-" + id.string();
  fs::create_directory(directory);
  fs::permissions(directory, fs::perms::owner_all);

  const CLIInvocation engine{
      .executable = home / ".local/bin/claude",
      .arguments = CLIInvocationBuilder::claudeArguments(GenerationShape::freeText),
      .environment = CLIInvocationBuilder::environment(home, "bench", directory),
      .workingDirectory = directory,
      .standardInput = CLIInvocationBuilder::prompt("", prompt)};
  const CLIInvocation client{
      .executable = fs::read_symlink("/proc/self/exe").parent_path() / "tessaloom-helperctl",
      .arguments = {"generate", "--engine", "claudeCode", prompt},
      .environment = ownEnvironment(),
      .workingDirectory = {},
      .standardInput = {}};
  CLIInvocation idleClient = client;
  idleClient.arguments = {"--help"};
  const BusHandle bus = openBus();
  const auto timedCall = [&] {
    const std::string body = HelperCoding::makeEncoder().encode(
        GenerationRequest(UUID::random(), GenerationEngineID::claudeCode, GenerationShape::freeText,
                          "", prompt, GenerationTimeout()));
    return timed([&] { call(bus.get(), helperName, methodNamed("GenerateText").name, &body); });
  };
  const auto byHand = [&] { return timed([&] { runByHand(engine); }); };

  const char* hand = "engine by hand";
  measurePairs({"generations", "on an open connection", hand}, generations, timedCall, byHand);
  measurePairs(
      {"generations", "tessaloom-helperctl generate", hand}, generations,
      [&] { return timed([&] { runByHand(client); }); }, byHand);
  measurePairs(
      {"generations", "of which the client's start and end (--help)", hand}, generations,
      [&] { return timed([&] { runByHand(idleClient); }); }, byHand);
  fs::remove_all(directory);
}

int run(std::span<char*> arguments) {
  const std::string command = arguments.size() > 1 ? arguments[1] : "";
  if (command == "calls" && arguments.size() == 2)
    measureCalls();
  else if (command == "beside-listings" && arguments.size() == 2)
    measureCallsBesideListings();
  else if (command == "first-listings" && arguments.size() == 2)
    measureFirstListings();
  else if (command == "generations" && arguments.size() == 3)
    measureGenerations(arguments[2]);
  else
    throw std::invalid_argument(
        "usage: tessaloom calls | beside-listings | first-listings | generations HOME");
  return EXIT_SUCCESS;
}

}  // namespace
}  // namespace tessaloom

int main(int argc, char** argv) {
  try {
    return tessaloom::run({argv, static_cast<std::size_t>(argc)});
  } catch (const std::exception& error) {
    std::fprintf(stderr, "benchmark: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
