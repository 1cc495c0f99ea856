#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>

#include "HelperProtocol/CallLoad.h"
#include "TessaloomHelper/Tasks.h"
#include "linux/BusCall.h"
#include "linux/CompletionQueue.h"
#include "linux/PeerConnection.h"

namespace tessaloom {

/// Carries out the calls of admitted callers: bounds them, runs them on other threads, and sends
/// their replies. Callers take turns at what is scarce, the engines' threads and the connection to
/// the bus; all connections of one process are one caller.
///
/// A call that was accepted is carried out even if its caller disconnects meanwhile, and counts
/// against its caller's limits until its reply has been handed to the bus library.
///
/// On the bus's thread only.
class CallScheduler {
 public:
  /// Of all callers together. A caller that has no other call unanswered gets one of moderate size
  /// accepted even then.
  static constexpr std::size_t maximumCalls = 1'024;
  static constexpr std::size_t maximumBytes = 128UL * 1'048'576;
  static constexpr std::size_t moderateBytes = 1'048'576;

  /// How many generations, and how many probes, are carried out at once; the others wait. Each
  /// takes a thread of the engines' tasks for as long as the engine runs. It is what three callers
  /// may have unanswered, so that one caller's do not wait for each other: the service refuses at
  /// once a generation beyond its own limit.
  static constexpr std::size_t maximumEngineCalls = 48;

  /// How many refusals one caller may have waiting to be sent. A caller that is refused more than
  /// that without taking the replies gets no others: what it sends must not hold up those whose
  /// calls come behind.
  static constexpr std::size_t maximumRefusals = 16'384;

  /// Replies are kept back while more than these wait in the library for the bus to accept them,
  /// because the callers' turns do not apply to replies that the library has.
  static constexpr std::uint64_t maximumQueuedReplies = 16;
  static constexpr std::size_t maximumQueuedBytes = 256UL * 1'024;

  /// `engineTasks` runs the calls that wait for an engine. Everything must outlive the calls.
  CallScheduler(sd_bus* bus, CompletionQueue& completions, Tasks& engineTasks);
  ~CallScheduler();

  /// Accepts a call of an admitted caller, or replies that there are too many. The result of a
  /// callback of the bus library.
  int accept(sd_bus_message* message, const Method& method,
             const std::shared_ptr<PeerConnection>& connection);

  /// Sends the replies that there are, round-robin by caller, while the library has room.
  void sendReplies();

  /// Gives memory back to the system after calls. To be called when there is nothing else to do.
  void releaseMemory();

  /// How many calls have not been answered.
  std::size_t unansweredCount() const { return unanswered_; }
  /// Whether the work of a call goes on or has not begun.
  bool hasRunningCalls() const { return unanswered_ > finished_; }
  /// Whether a call is unanswered that runs an engine or waits for one.
  bool hasEngineCalls() const { return engineCalls_ > 0; }

 private:
  class Call;
  struct Caller;
  using Calls = std::list<Call>;

  Caller* find(pid_t process);
  bool fits(const Caller* caller, CallWeight weight) const;
  Call& add(sd_bus_message* message, const Method& method,
            const std::shared_ptr<PeerConnection>& connection, CallWeight weight);
  int replyAtOnce(sd_bus_message* message, const Method& method, PeerConnection& connection);
  int refuse(sd_bus_message* message, const Method& method,
             const std::shared_ptr<PeerConnection>& connection);
  bool hasRoom();
  void start(Call& call) noexcept;
  void startEngineCalls();
  Call* nextEngineCall(Method::Kind kind);
  void finish(Call& call);
  void send(Call& call);

  sd_bus* bus_;
  CompletionQueue& completions_;
  Tasks& engineTasks_;
  std::list<Caller> callers_;
  std::size_t unanswered_ = 0;
  std::size_t refused_ = 0;        ///< Among them.
  std::size_t acceptedBytes_ = 0;  ///< Of the others.
  std::size_t engineCalls_ = 0;
  std::array<std::size_t, Method::kindCount> running_{};
  std::size_t finished_ = 0;
  std::uint64_t turns_ = 0;
  bool hasFreedMemory_ = false;  ///< Calls have ended since memory was last given back.
  std::size_t queuedBytes_ = 0;  ///< Sent since the library's queue was last seen empty.
};

}  // namespace tessaloom
