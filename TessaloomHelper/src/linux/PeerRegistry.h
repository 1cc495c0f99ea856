#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "HelperProtocol/CallLoad.h"
#include "HelperProtocol/linux/BusHandles.h"
#include "HelperProtocol/linux/BusRequests.h"
#include "TessaloomHelper/HelperService.h"
#include "TessaloomHelper/Tasks.h"
#include "linux/PeerCheckRunner.h"
#include "linux/PeerConnection.h"

namespace tessaloom {

enum class AdmissionState : std::uint8_t { undecided, admitted, refused };

/// A connection that has called, by its unique name, which a bus never assigns twice.
struct Peer {
  explicit Peer(std::string uniqueName) : name(std::move(uniqueName)) {}

  std::string name;
  AdmissionState state = AdmissionState::undecided;
  /// While a call of it is held or to be read again.
  bool hasDisconnected = false;
  BusRequest ownerWatch;
  BusRequest credentials;
  std::vector<BusMessage> held;  ///< Calls that came while undecided.
  std::size_t heldBytes = 0;
  std::size_t replayed = 0;                    ///< Held calls that are to be read again.
  std::size_t refusals = 0;                    ///< Calls that were refused.
  std::shared_ptr<PeerConnection> connection;  ///< Of an admitted peer.
  pid_t process = 0;                           ///< Known once the bus has reported it.
};

/// The senders of calls: has each one vetted at its first call, holds its calls until the decision,
/// and removes it when it disconnects. On the bus's thread only.
///
/// Calls of peers that are not decided yet are bounded for each connection and in all. When they
/// exceed the bound in all, the calls of the connection that holds most are refused.
class PeerRegistry {
 public:
  static constexpr std::size_t maximumAdmitted = 256;
  /// The bytes of a call's object path. The library looks for an object at each of its parents.
  static constexpr std::size_t longestPath = 255;
  /// Not admitted ones, refused ones included, which give way to others.
  static constexpr std::size_t maximumOthers = 4'096;
  static constexpr std::size_t maximumHeldCalls = 64;  ///< Of one connection.
  static constexpr std::size_t maximumHeldBytes = CallLoad::maximumBytes;
  static constexpr std::size_t maximumHeldBytesInAll = 4 * maximumHeldBytes;
  /// A peer that has been refused more often gets no answer while the bus is slow to take what is
  /// sent: it would delay the replies to all others.
  static constexpr std::size_t assuredRefusals = 64;

  /// `queueTasks` runs the admitted peers' queues. Peers of other users than `user` are refused
  /// without a look at their process; `checks` decides about the others.
  PeerRegistry(sd_bus* bus, BusRequests& requests, PeerCheckRunner& checks, uid_t user,
               Tasks& queueTasks, const ServiceContext& context);

  /// Decides about one call before anything else handles it. 0 when its sender is admitted; greater
  /// than 0 when the call was answered here or is held until the decision; a negative errno on
  /// failure.
  int authorize(sd_bus_message* call);

  /// The peer of this name, or null.
  Peer* find(std::string_view name);

  /// Whether a call waits for the decision about its sender.
  bool hasHeldCalls() const;

 private:
  Peer* add(const char* name);
  void remove(const std::string& name);
  void removeDisconnected();
  bool makeRoom();

  int hold(Peer& peer, sd_bus_message* call);
  /// Whether the refusal that was counted last may be answered.
  bool mayAnswerRefusal(const Peer& peer) const;
  bool makeRoomToHold(const Peer& peer, std::size_t bytes);
  std::vector<BusMessage> takeHeld(Peer& peer);

  void receiveCredentials(Peer& peer, sd_bus_message* reply);
  void receiveDisconnect(Peer& peer);
  /// False when the check cannot be started now.
  bool startCheck(const Peer& peer);
  void decide(const std::string& name, PeerCheckRunner::Result result);
  void admit(Peer& peer);
  void refuse(Peer& peer);
  void postpone(Peer& peer, int (*reply)(sd_bus_message* call));

  sd_bus* bus_;
  BusRequests& requests_;
  PeerCheckRunner& checks_;
  uid_t user_;
  Tasks& queueTasks_;
  const ServiceContext& context_;
  std::unordered_map<std::string, std::unique_ptr<Peer>> peers_;
  std::size_t admitted_ = 0;
  std::size_t heldBytes_ = 0;
};

}  // namespace tessaloom
