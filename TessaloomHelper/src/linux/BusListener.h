#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <systemd/sd-bus-vtable.h>

#include "HelperProtocol/linux/BusHandles.h"
#include "HelperProtocol/linux/BusRequests.h"
#include "TLFoundation/FileDescriptor.h"
#include "TessaloomHelper/HelperService.h"
#include "TessaloomHelper/Tasks.h"
#include "linux/BusCall.h"
#include "linux/CompletionQueue.h"
#include "linux/PeerRegistry.h"
#include "linux/PeerRequirement.h"
#include "linux/PeerVetting.h"

namespace tessaloom {

/// Serves the helper's interface on the session bus.
///
/// One thread, the one that calls run(), owns the connection, because not even the reference counts
/// of sd-bus's objects are atomic. Methods run on other threads and send their outcome back
/// through a completion queue.
///
/// How it ends: leave() gives the name up, answers every call that was routed to it before, however
/// long an engine takes, and then goes. A termination signal and the loss of the bus end the
/// engines first and wait for them no longer than `stopLimit`.
class BusListener {
 public:
  /// Calls of all callers that may run an engine at once; each keeps a thread of `tasks`, of which
  /// some must stay free.
  static constexpr std::size_t maximumEngineCalls = 48;

  static constexpr std::chrono::seconds stopLimit{10};

  /// What the listener works with; everything outlives it. `tasks` may be full of engines' work,
  /// `queueTasks` runs only the callers' queues, which never wait for an engine, `vettingTasks`
  /// only looks at callers. `signals` is a signalfd. `endEngines` ends what runs and may be called
  /// repeatedly.
  struct Environment {
    sd_bus* bus;
    const ServiceContext& context;
    Tasks& tasks;
    Tasks& queueTasks;
    Tasks& vettingTasks;
    PeerRequirement requirement;
    const FileDescriptor& signals;
    std::function<void()> endEngines;
  };

  explicit BusListener(Environment environment);
  ~BusListener();

  /// Takes the name and tells the service manager. The text of what is wrong on failure.
  std::expected<void, std::string> start();

  /// Serves until the end; the process's exit status.
  int run();

  /// Asks for the orderly end. Any thread, any number of times.
  void leave() noexcept;

 private:
  enum class Phase : std::uint8_t { serving, leaving, stopping };

  class AcceptedCall;
  class LeaveCompletion;

  int accept(sd_bus_message* message);
  void finish(AcceptedCall& call);

  void beginLeaving();
  void beginStopping();
  void releaseName();
  void startRoundTrip();
  bool isSettled() const;
  std::optional<int> advance();
  std::optional<int> advanceLeaving();
  std::optional<int> advanceStopping();
  int endAtOnce(std::string_view reason);
  void sendBacklog();
  void wait();
  void waitForCompletions();
  bool waitForMemory();
  void readSignals();

  static int onCall(sd_bus_message* call, void* userdata, sd_bus_error* error);
  static int onMethod(sd_bus_message* call, void* userdata, sd_bus_error* error);
  static int onReleased(sd_bus_message* reply, void* userdata, sd_bus_error* error);
  static int onRoundTrip(sd_bus_message* reply, void* userdata, sd_bus_error* error);

  Environment environment_;
  CompletionQueue completions_;
  BusRequests requests_;
  PeerVetting vetting_;
  PeerRegistry peers_;
  std::list<AcceptedCall> calls_;
  std::vector<sd_bus_vtable> table_;  ///< Must outlive `object_`, which points into it.
  BusSlot filter_;
  BusSlot object_;

  std::size_t engineCalls_ = 0;

  Phase phase_ = Phase::serving;
  std::unique_ptr<LeaveCompletion> leaveCompletion_;
  std::atomic<bool> isLeaveRequested_ = false;
  bool isReleased_ = false;
  std::chrono::steady_clock::time_point stopDeadline_;
  std::optional<std::chrono::steady_clock::time_point> starvedSince_;

  // A round trip to the bus that begins when everything is answered and ends without another call
  // proves that the answers were carried and that nothing is on its way by the name.
  std::uint64_t arrivals_ = 0;  ///< Calls that were read.
  bool isAsking_ = false;
  std::uint64_t arrivalsWhenAsked_ = 0;
  std::optional<std::uint64_t> arrivalsConfirmed_;
  int roundTrips_ = 0;
};

}  // namespace tessaloom
