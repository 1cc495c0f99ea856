#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include <systemd/sd-bus-vtable.h>

#include "HelperProtocol/linux/BusHandles.h"
#include "HelperProtocol/linux/BusRequests.h"
#include "TessaloomHelper/HelperService.h"
#include "TessaloomHelper/Tasks.h"
#include "linux/BusName.h"
#include "linux/CallScheduler.h"
#include "linux/CompletionQueue.h"
#include "linux/PeerCheckRunner.h"
#include "linux/PeerRegistry.h"
#include "linux/PeerRequirement.h"
#include "linux/StopSignals.h"

namespace tessaloom {

/// Serves the helper's interface on the session bus.
///
/// One thread, the one that calls run(), owns the connection, because not even the reference counts
/// of sd-bus's objects are atomic. Methods run on other threads and send their outcome back through
/// a completion queue.
///
/// How it ends: requestExit() releases the name, as soon as no call is unfinished that runs an
/// engine, answers every call that was routed to it before, and then has run() return. A signal, a
/// bus that cannot be read and the loss of the bus end the engines first and wait for them no
/// longer than `stopLimit`.
class BusListener {
 public:
  static constexpr std::chrono::seconds stopLimit{10};
  /// How long the bus may take to accept a reply or give the name back before a signal ends the
  /// helper without it.
  static constexpr std::chrono::seconds busLimit{2};

  /// What the listener works with; everything outlives it. `engineTasks` may be full of engines'
  /// work, `queueTasks` runs only the peers' queues, which never wait for an engine,
  /// `peerCheckTasks` only looks at peers. `endEngines` may be called repeatedly.
  struct Collaborators {
    sd_bus* bus;
    const ServiceContext& context;
    Tasks& engineTasks;
    Tasks& queueTasks;
    Tasks& peerCheckTasks;
    PeerRequirement requirement;
    const StopSignals& signals;
    std::function<void()> endEngines;
  };

  /// Throws std::system_error when the bus library or the system lacks memory or descriptors.
  explicit BusListener(Collaborators collaborators);
  ~BusListener();

  /// Takes the name, notifies the service manager, and serves until the end. The process's exit
  /// status: 0 after requestExit(), 128 plus the signal's number after a signal, 1 when the name
  /// cannot be acquired, or the bus is lost or can no longer be read.
  int run();

  /// Asks for the orderly end. Any thread, any number of times.
  void requestExit() noexcept;

 private:
  enum class Phase : std::uint8_t { starting, serving, exiting, stopping };
  using Clock = std::chrono::steady_clock;

  class ExitCompletion;

  int accept(sd_bus_message* message);
  std::optional<int> process();
  std::optional<int> advance();
  std::optional<int> advanceStarting();
  std::optional<int> advanceServing();
  std::optional<int> advanceExit();
  std::optional<int> advanceStopping();
  void beginExit();
  void beginStopping(std::optional<int> signal);
  void stopUnreadable();
  static void extendStop();
  bool isSettled();
  void startRoundTrip();
  int endAtOnce(std::string_view reason);
  bool mayRead() const;
  void wait();
  void waitForCompletions();
  bool waitForMemory();
  void readSignals();

  static int onCall(sd_bus_message* call, void* userdata, sd_bus_error* error);
  static int onMethod(sd_bus_message* call, void* userdata, sd_bus_error* error);

  Collaborators collaborators_;
  CompletionQueue completions_;
  BusRequests requests_;
  BusName name_;
  CallScheduler scheduler_;
  PeerCheckRunner checks_;
  PeerRegistry peers_;
  std::vector<sd_bus_vtable> table_;  ///< Must outlive `object_`, which points into it.
  BusSlot filter_;
  BusSlot object_;

  Phase phase_ = Phase::starting;
  bool isBusReady_ = false;  ///< Whether the connection can be read or written.
  int burst_ = 0;            ///< Messages handled since other events were last handled.
  int failures_ = 0;         ///< Of the library since it handled a message.
  std::optional<Clock::time_point> starvedSince_;

  std::unique_ptr<ExitCompletion> exitCompletion_;
  std::atomic<bool> isExitRequested_ = false;
  bool isReadyAnnounced_ = false;  ///< To the service manager.
  bool isStopAnnounced_ = false;   ///< To it, too; it takes no such notice back.
  bool isUnreadable_ = false;      ///< Nothing more can be read from the bus.
  std::optional<int> stopSignal_;  ///< nullopt while stopping because nothing can be read.
  Clock::time_point stopDeadline_;
  std::size_t unanswered_ = 0;      ///< Calls, at the last check while stopping.
  Clock::time_point lastProgress_;  ///< When that was last another number.

  // A round trip to the bus that begins when everything is answered and ends without another call
  // proves that the answers were carried and that nothing is on its way by the name.
  std::uint64_t arrivals_ = 0;  ///< Calls that were read.
  std::optional<std::uint64_t> arrivalsConfirmed_;
  BusRequest roundTrip_;
  bool isAsking_ = false;
};

}  // namespace tessaloom
