#pragma once

#include <unistd.h>

#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "HelperProtocol/UUID.h"
#include "e2e/BusClient.h"
#include "e2e/PrivateBus.h"

namespace tessaloom {

/// A bus of the test's own and one client on it.
class EndToEnd : public testing::Test {
 protected:
  struct Request {
    std::string prompt = {};
    std::string engine = "claudeCode";
    std::string shape = "freeText";
    int timeout = 60;
    std::string id = UUID::random().string();

    std::string body() const {
      return nlohmann::json{{"requestID", id},
                            {"engine", engine},
                            {"shape", shape},
                            {"prompt", prompt},
                            {"instructions", "Be brief."},
                            {"timeout", timeout}}
          .dump();
    }
  };

  /// Whether a cancellation found the generation running.
  bool cancel(const Request& request) {
    return client.call("CancelGeneration", nlohmann::json{{"requestID", request.id}}.dump()).body ==
           R"({"succeeded":true})";
  }

  /// A word that makes the practice engine create a file.
  std::string touch(const std::string& name) const {
    return " practice:touch=" + bus.path(name).string();
  }
  /// A word that makes the practice engine wait for one.
  std::string waitFor(const std::string& name) const {
    return " practice:wait-for=" + bus.path(name).string();
  }
  bool awaitFile(const std::string& name) const {
    return eventually([&] { return std::filesystem::exists(bus.path(name)); });
  }
  void createFile(const std::string& name) const { std::ofstream(bus.path(name)).put('\n'); }

  static bool hasDirectory(const Request& request) {
    return std::filesystem::exists("/tmp/tessaloom-" + std::to_string(::getuid()) +
                                   "/tessaloom-generation-" + request.id);
  }

  /// Ends the helper in order, so that a sanitizer's last words are heard.
  void TearDown() override;

  PrivateBus bus;
  BusClient client{bus.address()};
  bool isBusLost = false;
};

/// What a process has of the system, as /proc tells.
struct ProcessFootprint {
  std::size_t descriptors = 0;
  std::size_t threads = 0;
  std::size_t children = 0;
  bool operator==(const ProcessFootprint&) const = default;
};

ProcessFootprint footprintOf(pid_t process);
/// Clock ticks that a process has run.
long processorTime(pid_t process);
std::vector<pid_t> childrenOf(pid_t process);
/// One that has exited and was not waited for yet is not alive.
bool isGroupAlive(pid_t group);
bool isAlive(pid_t process);

}  // namespace tessaloom
