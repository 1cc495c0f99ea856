// How a helper starts, registers, is replaced and ends.

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>

#include <atomic>
#include <thread>

#include "e2e/EndToEnd.h"

namespace tessaloom {
namespace {

constexpr std::string_view exitLine =
    "helper: executable replaced on disk; exiting so launchd starts the new build\n";

std::size_t occurrences(std::string_view text, std::string_view part) {
  std::size_t count = 0;
  for (auto at = text.find(part); at != std::string_view::npos; at = text.find(part, at + 1))
    ++count;
  return count;
}

// Clients that call until they are stopped.
class Callers {
 public:
  explicit Callers(const std::string& address) {
    for (const char* method : {"ProtocolVersion", "HelperCapabilities", "GenerationEngineStatus"}) {
      threads_.emplace_back([this, address, method] { callOnAndOn(address, method); });
    }
  }
  ~Callers() {
    isStopped_ = true;
    for (auto& thread : threads_) thread.join();
  }

  bool awaitMore(int calls) {
    const int goal = answered_ + calls;
    return eventually([&] { return answered_ >= goal || failed_ > 0; });
  }

 private:
  void callOnAndOn(const std::string& address, const char* method) {
    BusClient client(address);
    const bool asksForEngine = std::string_view(method) == "GenerationEngineStatus";
    const std::optional<std::string_view> body(R"({"engine":"codex"})");
    while (!isStopped_ && failed_ == 0) {
      const BusReply reply = client.call(method, asksForEngine ? body : std::nullopt);
      EXPECT_FALSE(reply.isError()) << method << ": " << reply.errorName << " " << reply.message;
      ++(reply.isError() ? failed_ : answered_);
      // A helper that is always probing never exits.
      if (asksForEngine) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }

  std::atomic<bool> isStopped_ = false;
  std::atomic<int> answered_ = 0;
  std::atomic<int> failed_ = 0;
  std::vector<std::thread> threads_;
};

class Lifetime : public EndToEnd {
 protected:
  // The same file with a later time, or another one in its place.
  void replaceHelper(bool byAnotherFile, int turn) {
    if (byAnotherFile) {
      const std::string copy = bus.helper().string() + ".new";
      std::filesystem::copy_file(bus.helper(), copy);
      std::filesystem::rename(copy, bus.helper());
      return;
    }
    const timespec later{.tv_sec = ::time(nullptr) + 10 * (turn + 1), .tv_nsec = 0};
    const timespec times[] = {later, later};
    ASSERT_EQ(::utimensat(AT_FDCWD, bus.helper().c_str(), times, 0), 0);
  }
};

TEST_F(Lifetime, ReplacedHelpersLeaveOnceIdleAndLoseNoCall) {
  client.call("ProtocolVersion");
  Callers callers(bus.address());
  constexpr int turns = 4;
  for (int turn = 0; turn < turns; ++turn) {
    const pid_t old = client.helperProcess();
    const std::string go = "go" + std::to_string(turn);
    const std::string up = "up" + std::to_string(turn);
    const Request request{.prompt = "Hold on" + touch(up) + waitFor(go)};
    const auto generation = client.send("GenerateText", request.body());
    ASSERT_TRUE(awaitFile(up));
    replaceHelper(turn % 2 == 1, turn);
    EXPECT_EQ(client.call("QuitIfOutdated").body, R"({"isOutdated":true,"willExit":true})");
    ASSERT_TRUE(callers.awaitMore(100));
    EXPECT_EQ(client.helperProcess(), old);

    createFile(go);
    EXPECT_FALSE(client.await(generation).isError());
    ASSERT_TRUE(eventually([&] { return !isAlive(old); }));
    ASSERT_TRUE(callers.awaitMore(50));
    EXPECT_EQ(client.call("QuitIfOutdated").body, R"({"isOutdated":false,"willExit":false})");
  }
  EXPECT_EQ(occurrences(bus.log(), exitLine), static_cast<std::size_t>(turns));
}

TEST_F(Lifetime, EndsItsEnginesOnEverySignalThatIsSentToEndIt) {
  for (const int signal : {SIGTERM, SIGHUP, SIGINT, SIGQUIT, SIGUSR1, SIGALRM, SIGXCPU}) {
    SCOPED_TRACE(signal);
    Child helper = bus.startHelper();
    ASSERT_TRUE(eventually([&] { return client.helperProcess() == helper.pid(); }));
    helper.signal(SIGXFSZ);  // Ignored.
    const std::string up = "up" + std::to_string(signal);
    const std::string resist = signal == SIGTERM ? "practice:ignore-term" : "";
    const Request request{.prompt = "Resist " + resist + touch(up) + " practice:hang"};
    const auto generation = client.send("GenerateText", request.body());
    ASSERT_TRUE(awaitFile(up));
    helper.signal(signal);
    EXPECT_EQ(client.await(generation).errorName, "com.brindlemoor.Tessaloom.generation.cancelled");
    EXPECT_EQ(helper.wait(), 128 + signal);
    const std::string line = "helper: ended by signal " + std::to_string(signal) + "\n";
    EXPECT_EQ(occurrences(bus.helperLog(), line), 1U);
    EXPECT_FALSE(hasDirectory(request));
  }
}

TEST_F(Lifetime, RestsAndHearsSignalsWhileTheBusTakesNothing) {
  Child helper = bus.startHelper();
  ASSERT_TRUE(eventually([&] { return client.helperProcess() == helper.pid(); }));
  std::vector<std::shared_ptr<BusClient::Pending>> listings;
  for (int i = 0; i < 64; ++i) listings.push_back(client.send("ListProcesses"));
  client.await(listings.front());
  bus.suspend();
  auto used = processorTime(helper.pid());
  EXPECT_TRUE(eventually([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    return std::exchange(used, processorTime(helper.pid())) == processorTime(helper.pid());
  }));
  const auto start = std::chrono::steady_clock::now();
  helper.signal(SIGTERM);
  EXPECT_EQ(helper.wait(), 128 + SIGTERM);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  bus.resume();
}

TEST_F(Lifetime, EndsWithItsBus) {
  Child helper = bus.startHelper();
  ASSERT_TRUE(eventually([&] { return client.helperProcess() == helper.pid(); }));
  const Request request{.prompt = "Wait" + touch("up") + " practice:hang"};
  client.send("GenerateText", request.body());
  ASSERT_TRUE(awaitFile("up"));
  const auto engines = childrenOf(helper.pid());
  bus.end();
  isBusLost = true;
  EXPECT_EQ(helper.wait(), 1);
  EXPECT_NE(bus.helperLog().find("helper: the session bus was lost\n"), std::string::npos);
  EXPECT_FALSE(hasDirectory(request));
  EXPECT_FALSE(isGroupAlive(engines.at(0)));
}

TEST_F(Lifetime, DoesNotStartWithoutItsName) {
  client.call("ProtocolVersion");
  Child second = bus.startHelper();
  EXPECT_EQ(second.wait(), 1);
  EXPECT_NE(bus.helperLog().find("helper: could not take the name "), std::string::npos);
  EXPECT_EQ(client.call("ProtocolVersion").number, 1);
}

// Stands in for the user's service manager.
class Registration : public EndToEnd {
 protected:
  // The helper's first answer, and what it wrote, when the manager says `state`, or nothing.
  std::string start(std::optional<std::string> state) {
    BusClient manager(bus.address());
    manager.serve("org.freedesktop.systemd1", [&](sd_bus_message* call) {
      const std::string method = sd_bus_message_get_member(call);
      calls_.push_back(method);
      if (!state) return 1;
      if (method == "GetUnitFileState")
        return sd_bus_reply_method_return(call, "s", state->c_str());
      if (method != "EnableUnitFiles") return 0;
      const char* unit = nullptr;
      int flags[2] = {-1, -1};
      sd_bus_message_read(call, "asbb", 1, &unit, &flags[0], &flags[1]);
      EXPECT_STREQ(unit, "com.brindlemoor.Tessaloom.helper.service");
      EXPECT_EQ(flags[0] | flags[1], 0);
      if (*state == "refusing") {
        return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_ACCESS_DENIED, "Not\ntoday");
      }
      return sd_bus_reply_method_return(call, "ba(sss)", 1, 0);
    });
    const auto version = client.send("ProtocolVersion");
    EXPECT_TRUE(eventually([&] {
      manager.process();
      return client.hasAnswer(version);
    }));
    EXPECT_EQ(client.await(version).number, 1);
    const std::string log = bus.log();
    const auto line = log.find("helper: ");
    return line == std::string::npos ? "" : log.substr(line, log.find('\n', line) - line);
  }

  std::vector<std::string> calls_;
};

TEST_F(Registration, EnablesAUnitThatIsNotEnabled) {
  EXPECT_EQ(start("disabled"), "");
  EXPECT_EQ(calls_, (std::vector<std::string>{"GetUnitFileState", "EnableUnitFiles"}));
}

TEST_F(Registration, AsksNothingMoreWhereItIs) {
  EXPECT_EQ(start("enabled"), "");
  EXPECT_EQ(calls_, std::vector<std::string>{"GetUnitFileState"});
}

TEST_F(Registration, TellsARefusalAndGoesOn) {
  EXPECT_EQ(start("refusing"), "helper: systemd user unit register failed: Nottoday");
}

TEST_F(Registration, DoesNotWaitForAManagerThatIsSilent) {
  EXPECT_EQ(start(std::nullopt).substr(0, 43), "helper: systemd user unit register failed: ");
}

}  // namespace
}  // namespace tessaloom
