#include "linux/PeerRegistry.h"

#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <expected>
#include <new>

#include "HelperProtocol/linux/BusCallback.h"
#include "linux/CallScheduler.h"

namespace tessaloom {

namespace {

struct Credentials {
  std::optional<std::uint32_t> user;
  std::optional<std::uint32_t> process;
};

/// The two entries that matter of the bus's a{sv} about a connection; nullopt for another message,
/// and without the memory to read it.
std::optional<Credentials> readCredentials(sd_bus_message* message) {
  Credentials credentials;
  if (sd_bus_message_enter_container(message, 'a', "{sv}") < 0) return std::nullopt;
  for (;;) {
    const int entered = sd_bus_message_enter_container(message, 'e', "sv");
    if (entered == 0) return credentials;
    const char* key = nullptr;
    if (entered < 0 || sd_bus_message_read(message, "s", &key) < 0) return std::nullopt;
    std::optional<std::uint32_t>* value = nullptr;
    if (std::string_view(key) == "UnixUserID") value = &credentials.user;
    if (std::string_view(key) == "ProcessID") value = &credentials.process;
    std::uint32_t number = 0;
    const int read = value != nullptr ? sd_bus_message_read(message, "v", "u", &number)
                                      : sd_bus_message_skip(message, "v");
    if (read < 0 || sd_bus_message_exit_container(message) < 0) return std::nullopt;
    if (value != nullptr) *value = number;
  }
}

/// What a call takes while it is held: its arguments, and the path, which a message does not bound
/// either. The library does not give the size of a message; a negative errno for arguments that no
/// method has, or that it cannot read.
std::expected<std::size_t, int> sizeOf(sd_bus_message* call) {
  std::size_t size = std::strlen(sd_bus_message_get_path(call));
  const std::string_view arguments = sd_bus_message_get_signature(call, 1);
  int result = 0;
  if (arguments == "ay") {
    const void* bytes = nullptr;
    std::size_t length = 0;
    result = sd_bus_message_read_array(call, 'y', &bytes, &length);
    size += length;
  } else if (arguments == "s") {
    const char* text = nullptr;
    result = sd_bus_message_read(call, "s", &text);
    if (result >= 0) size += std::strlen(text);
  } else if (!arguments.empty()) {
    result = -EINVAL;
  }
  if (result >= 0) result = sd_bus_message_rewind(call, 1);
  if (result < 0) return std::unexpected(result);
  return size;
}

/// Greater than 0 also for a call that wants no reply, for which the library sends none.
int answer(sd_bus_message* call, const char* name, const char* message) {
  const int result = sd_bus_reply_method_errorf(call, name, "%s", message);
  return result < 0 ? result : 1;
}

int replyAccessDenied(sd_bus_message* call) {
  return answer(call, SD_BUS_ERROR_ACCESS_DENIED,
                "Only the editor and the helper's own client may call.");
}

int replyTooMany(sd_bus_message* call) {
  return answer(call, SD_BUS_ERROR_LIMITS_EXCEEDED,
                "Too many callers or calls are waiting for admission.");
}

int replyUnknown(sd_bus_message* call) {
  return answer(call, SD_BUS_ERROR_LIMITS_EXCEEDED, "The caller could not be identified in time.");
}

int replyFull(sd_bus_message* call) {
  return answer(call, SD_BUS_ERROR_LIMITS_EXCEEDED,
                "Too many connections of admitted programs are open.");
}

}  // namespace

PeerRegistry::PeerRegistry(sd_bus* bus, BusRequests& requests, PeerCheckRunner& checks, uid_t user,
                           Tasks& queueTasks, const ServiceContext& context)
    : bus_(bus),
      requests_(requests),
      checks_(checks),
      user_(user),
      queueTasks_(queueTasks),
      context_(context) {}

int PeerRegistry::authorize(sd_bus_message* call) {
  const char* sender = sd_bus_message_get_sender(call);
  if (sender == nullptr) return replyAccessDenied(call);
  Peer* peer = find(sender);
  if (peer == nullptr) peer = add(sender);
  if (peer == nullptr) return replyTooMany(call);
  switch (peer->state) {
    case AdmissionState::admitted:
      if (peer->replayed > 0) --peer->replayed;
      if (std::strlen(sd_bus_message_get_path(call)) <= longestPath) return 0;
      return answer(call, SD_BUS_ERROR_UNKNOWN_OBJECT, "There is no object with so long a path.");
    case AdmissionState::undecided:
      return hold(*peer, call);
    case AdmissionState::refused:
      break;
  }
  ++peer->refusals;
  return mayAnswerRefusal(*peer) ? replyAccessDenied(call) : 1;
}

Peer* PeerRegistry::find(std::string_view name) {
  const auto found = peers_.find(std::string(name));
  return found == peers_.end() ? nullptr : found->second.get();
}

bool PeerRegistry::hasHeldCalls() const {
  return std::ranges::any_of(peers_, [](const auto& entry) {
    return !entry.second->held.empty() || entry.second->replayed > 0;
  });
}

// One watch for each peer rather than one for all names: the bus then wakes the helper only for its
// own peers' ends, not for every program that disconnects. It is asked for before the credentials,
// so that one of the two detects a sender that disconnects in between.
Peer* PeerRegistry::add(const char* name) {
  removeDisconnected();
  if (!makeRoom()) return nullptr;
  auto peer = std::make_unique<Peer>(name);
  Peer& added = *peer;  // Its requests end with it.
  auto ownerWatch = requests_.watchOwner(
      added.name,
      [this, &added](std::string_view owner) {
        if (owner.empty()) receiveDisconnect(added);
      },
      [this, &added](sd_bus_message*) { postpone(added, replyUnknown); });
  if (!ownerWatch) return nullptr;
  auto credentials = requests_.askBus(
      "GetConnectionCredentials",
      [this, &added](sd_bus_message* reply) { receiveCredentials(added, reply); }, "s", name);
  if (!credentials) return nullptr;
  peer->ownerWatch = *std::move(ownerWatch);
  peer->credentials = *std::move(credentials);
  return peers_.emplace(peer->name, std::move(peer)).first->second.get();
}

void PeerRegistry::remove(const std::string& name) {
  const auto found = peers_.find(name);
  heldBytes_ -= found->second->heldBytes;
  if (found->second->connection) {
    found->second->connection->isGone = true;
    --admitted_;
  }
  peers_.erase(found);
}

void PeerRegistry::removeDisconnected() {
  std::vector<std::string> disconnected;
  for (const auto& [name, peer] : peers_) {
    if (peer->hasDisconnected && peer->state != AdmissionState::undecided && peer->replayed == 0) {
      disconnected.push_back(name);
    }
  }
  for (const std::string& name : disconnected) remove(name);
}

// Peers that were refused may be forgotten, to be vetted again should they call again: they cannot
// fill the table.
bool PeerRegistry::makeRoom() {
  if (peers_.size() - admitted_ < maximumOthers) return true;
  return std::erase_if(peers_, [](const auto& entry) {
           return entry.second->state == AdmissionState::refused;
         }) > 0;
}

int PeerRegistry::hold(Peer& peer, sd_bus_message* call) {
  const auto size = sizeOf(call);
  if (!size || peer.held.size() >= maximumHeldCalls || *size > maximumHeldBytes - peer.heldBytes ||
      !makeRoomToHold(peer, *size)) {
    ++peer.refusals;
    if (!mayAnswerRefusal(peer)) return 1;
    return size ? replyTooMany(call) : size.error();
  }
  peer.held.push_back(retain(call));
  peer.heldBytes += *size;
  heldBytes_ += *size;
  return 1;
}

bool PeerRegistry::mayAnswerRefusal(const Peer& peer) const {
  return peer.refusals <= assuredRefusals ||
         queuedMessages(bus_) <= CallScheduler::maximumQueuedReplies;
}

bool PeerRegistry::makeRoomToHold(const Peer& peer, std::size_t bytes) {
  while (bytes > maximumHeldBytesInAll - heldBytes_) {
    const auto most = std::ranges::max_element(
        peers_, {}, [](const auto& entry) { return entry.second->heldBytes; });
    if (most->second->heldBytes <= peer.heldBytes + bytes) return false;
    for (const BusMessage& call : takeHeld(*most->second)) replyTooMany(call.get());
  }
  return true;
}

std::vector<BusMessage> PeerRegistry::takeHeld(Peer& peer) {
  heldBytes_ -= std::exchange(peer.heldBytes, 0);
  return std::exchange(peer.held, {});
}

void PeerRegistry::receiveCredentials(Peer& peer, sd_bus_message* reply) {
  const auto credentials = readCredentials(reply);
  // An error: it has disconnected, so nothing proves who it was; or the bus lacks a resource.
  if (!credentials) return postpone(peer, replyUnknown);
  if (credentials->user != user_ || !credentials->process) return refuse(peer);
  peer.process = static_cast<pid_t>(*credentials->process);
  if (!startCheck(peer)) postpone(peer, replyUnknown);
}

bool PeerRegistry::startCheck(const Peer& peer) try {
  return checks_.start(peer.process, [this, name = std::string(peer.name)](
                                         PeerCheckRunner::Result result) { decide(name, result); });
} catch (const std::bad_alloc&) {
  return false;
}

// Calls that have arrived are carried out even after the peer has disconnected, as long as its
// process still exists and can be vetted.
void PeerRegistry::receiveDisconnect(Peer& peer) {
  peer.hasDisconnected = true;
  if (peer.held.empty() && peer.replayed == 0) remove(peer.name);
}

void PeerRegistry::decide(const std::string& name, PeerCheckRunner::Result result) {
  Peer* peer = find(name);
  if (peer == nullptr) return;
  switch (result) {
    case PeerCheckRunner::Result::admitted:
      return admit(*peer);
    case PeerCheckRunner::Result::refused:
      return refuse(*peer);
    case PeerCheckRunner::Result::unknown:
      return postpone(*peer, replyUnknown);
  }
}

void PeerRegistry::admit(Peer& peer) {
  if (admitted_ >= maximumAdmitted) return postpone(peer, replyFull);
  peer.connection = std::make_shared<PeerConnection>(context_, queueTasks_, peer.process);
  peer.state = AdmissionState::admitted;
  ++admitted_;
  // Back into the library's queue, ahead of everything that has not been read yet.
  for (const BusMessage& call : takeHeld(peer)) {
    const int result = sd_bus_enqueue_for_read(bus_, call.get());
    if (result < 0) {
      sd_bus_reply_method_errno(call.get(), result, nullptr);
    } else {
      ++peer.replayed;
    }
  }
}

void PeerRegistry::refuse(Peer& peer) {
  peer.state = AdmissionState::refused;
  for (const BusMessage& call : takeHeld(peer)) replyAccessDenied(call.get());
}

// Nothing is remembered: the peer's next call has it vetted again.
void PeerRegistry::postpone(Peer& peer, int (*reply)(sd_bus_message*)) {
  for (const BusMessage& call : takeHeld(peer)) reply(call.get());
  remove(peer.name);
}

}  // namespace tessaloom
