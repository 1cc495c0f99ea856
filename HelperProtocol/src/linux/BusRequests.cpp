#include "HelperProtocol/linux/BusRequests.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <iterator>
#include <new>
#include <system_error>

#include "HelperProtocol/linux/BusCallback.h"
#include "TLFoundation/PollTimeout.h"

namespace tessaloom {

namespace {

constexpr const char* noOwnerError = "org.freedesktop.DBus.Error.NameHasNoOwner";

std::string ownerChangesOf(const std::string& name) {
  return "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
         "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" +
         name + "'";
}

bool isError(sd_bus_message* reply) {
  return sd_bus_message_is_method_error(reply, nullptr) > 0;
}

}  // namespace

BusRequest& BusRequest::operator=(BusRequest&& other) noexcept {
  cancel();
  requests_ = std::exchange(other.requests_, nullptr);
  id_ = other.id_;
  return *this;
}

void BusRequest::cancel() {
  if (requests_ != nullptr) std::exchange(requests_, nullptr)->cancel(id_);
}

BusRequests::BusRequests(sd_bus* bus) : bus_(bus) {
  sd_bus_slot* slot = nullptr;
  const int result = sd_bus_add_filter(bus_, &slot, onMessage, this);
  if (result < 0) throw std::system_error(-result, std::generic_category(), "sd_bus_add_filter");
  filter_.reset(slot);
}

BusRequests::~BusRequests() {
  // What these hold are requests of this.
  destinations_.clear();
  const auto watches = std::exchange(watches_, {});
}

bool BusRequests::isFromBus(sd_bus_message* message) {
  const char* sender = sd_bus_message_get_sender(message);
  return sender != nullptr && std::string_view(sender) == busName;
}

std::expected<BusRequest, int> BusRequests::send(sd_bus_message* call, BusReplyHandler handler) {
  const char* destination = sd_bus_message_get_destination(call);
  if (destination == nullptr) return std::unexpected(EDESTADDRREQ);
  std::list<Call> fresh;
  Call& entry = fresh.emplace_back();
  entry.id = ++lastId_;
  entry.destination = destination;
  entry.handler = std::move(handler);
  if (entry.destination == busName || entry.destination.starts_with(':')) {
    entry.repliers.push_back(entry.destination);
  } else {
    const auto followed = follow(entry.destination);
    if (!followed) return std::unexpected(followed.error());
    if (!(*followed)->owner.empty()) entry.repliers.push_back((*followed)->owner);
  }
  // A message that is sent with its serial asked for is one that expects a reply.
  const int result = sd_bus_send(bus_, call, &entry.serial);
  if (result < 0) return std::unexpected(-result);
  calls_.splice(calls_.end(), fresh);
  return BusRequest(*this, entry.id);
}

std::expected<BusRequest, int> BusRequests::watchOwner(const std::string& name,
                                                       OwnerHandler changed,
                                                       BusReplyHandler refused) {
  std::list<Watch> fresh;
  Watch& watch = fresh.emplace_back();
  watch.id = ++lastId_;
  watch.name = name;
  watch.handler = std::move(changed);
  auto matchReply = askBus(
      "AddMatch",
      [refused = std::move(refused)](sd_bus_message* reply) {
        if (isError(reply)) refused(reply);
      },
      "s", ownerChangesOf(name).c_str());
  if (!matchReply) return std::unexpected(matchReply.error());
  watch.matchReply = *std::move(matchReply);
  watches_.splice(watches_.end(), fresh);
  return BusRequest(*this, watch.id);
}

std::expected<BusMessage, int> BusRequests::callAndWait(sd_bus_message* call, Deadline deadline,
                                                        int interruption) {
  BusMessage reply;
  const auto request = send(call, [&reply](sd_bus_message* answer) { reply = retain(answer); });
  if (!request) return std::unexpected(request.error());
  while (!reply) {
    int result = sd_bus_process(bus_, nullptr);
    if (result >= 0 && !reply) result = wait(deadline, interruption);
    if (result < 0 && result != -EINTR) return std::unexpected(-result);
  }
  return reply;
}

// Until the connection has something to do; a negative errno when the call is to end before. The
// library's own time limits all lie far beyond that of a call.
int BusRequests::wait(Deadline deadline, int interruption) const {
  const int events = sd_bus_get_events(bus_);
  if (events < 0) return events;
  const int timeout = pollTimeout(deadline);
  if (timeout == 0) return -ETIMEDOUT;
  std::array<pollfd, 2> watched{
      pollfd{.fd = sd_bus_get_fd(bus_), .events = static_cast<short>(events), .revents = 0},
      pollfd{.fd = interruption, .events = POLLIN, .revents = 0}};
  if (::poll(watched.data(), watched.size(), timeout) < 0) return -errno;
  return watched[1].revents != 0 ? -ECANCELED : 0;
}

std::expected<BusMessage, int> BusRequests::newBusCall(const char* method) const {
  sd_bus_message* created = nullptr;
  const int result =
      sd_bus_message_new_method_call(bus_, &created, busName, busPath, busInterface, method);
  BusMessage call(created);
  if (result < 0) return std::unexpected(-result);
  return call;
}

// The bus answers in the order in which it is asked, and reports a change before it delivers what
// the new owner sends. So the owner is known before the first reply from it arrives.
std::expected<BusRequests::Destination*, int> BusRequests::follow(const std::string& name) {
  const auto known = std::ranges::find(destinations_, name, &Destination::name);
  if (known != destinations_.end()) return &*known;
  std::list<Destination> fresh(1);
  Destination& destination = fresh.front();
  destination.name = name;
  auto watch = watchOwner(
      name, [this, &destination](std::string_view owner) { setOwner(destination, owner); },
      [this, &destination](sd_bus_message* error) { fail(destination.name, error); });
  if (!watch) return std::unexpected(watch.error());
  destination.watch = *std::move(watch);
  auto ownerReply = askBus(
      "GetNameOwner",
      [this, &destination](sd_bus_message* reply) {
        const char* owner = nullptr;
        if (isError(reply)) {
          if (sd_bus_message_is_method_error(reply, noOwnerError) == 0) {
            fail(destination.name, reply);
          }
        } else if (sd_bus_message_read(reply, "s", &owner) > 0) {
          setOwner(destination, owner);
        }
      },
      "s", name.c_str());
  if (!ownerReply) return std::unexpected(ownerReply.error());
  destination.ownerReply = *std::move(ownerReply);
  destinations_.splice(destinations_.end(), fresh);
  return &destination;
}

void BusRequests::setOwner(Destination& destination, std::string_view owner) {
  destination.owner = owner;
  if (owner.empty()) return;
  for (Call& call : calls_) {
    if (call.destination == destination.name) call.repliers.emplace_back(owner);
  }
}

// Without the owner's name no reply could be accepted: the calls end with the bus's error, and the
// next one asks for the owner again.
void BusRequests::fail(std::string destination, sd_bus_message* error) {
  destinations_.remove_if([&](const Destination& one) { return one.name == destination; });
  // A handler may end any call and make others, which are appended.
  for (const std::uint64_t last = lastId_;;) {
    const auto next = std::ranges::find_if(calls_, [&](const Call& call) {
      return call.id <= last && call.destination == destination;
    });
    if (next == calls_.end()) return;
    std::list<Call> failed;
    failed.splice(failed.end(), calls_, next);
    failed.front().handler(error);
  }
}

void BusRequests::cancel(std::uint64_t id) {
  // Destroyed after they have left the lists: a handler may hold other requests.
  std::list<Call> cancelledCall;
  std::list<Watch> cancelledWatch;
  if (const auto call = std::ranges::find(calls_, id, &Call::id); call != calls_.end()) {
    cancelledCall.splice(cancelledCall.end(), calls_, call);
    return;
  }
  const auto watch = std::ranges::find(watches_, id, &Watch::id);
  if (watch == watches_.end()) return;
  cancelledWatch.splice(cancelledWatch.end(), watches_, watch);
  try {
    const auto call = newBusCall("RemoveMatch");
    if (!call) return;
    const std::string rule = ownerChangesOf(cancelledWatch.front().name);
    if (sd_bus_message_append(call->get(), "s", rule.c_str()) < 0) return;
    sd_bus_send(bus_, call->get(), nullptr);
  } catch (const std::bad_alloc&) {
    return;  // The bus keeps reporting changes that nothing handles.
  }
}

void BusRequests::receive(sd_bus_message* message) {
  std::uint8_t type = 0;
  if (sd_bus_message_get_type(message, &type) < 0) return;
  if (type == SD_BUS_MESSAGE_METHOD_RETURN || type == SD_BUS_MESSAGE_METHOD_ERROR) {
    return receiveReply(message);
  }
  if (sd_bus_message_is_signal(message, busInterface, "NameOwnerChanged") > 0 &&
      isFromBus(message)) {
    receiveOwnerChange(message);
  }
}

void BusRequests::receiveReply(sd_bus_message* reply) {
  std::uint64_t serial = 0;
  if (sd_bus_message_get_reply_cookie(reply, &serial) < 0) return;
  const auto call = std::ranges::find(calls_, serial, &Call::serial);
  const char* sender = sd_bus_message_get_sender(reply);
  if (call == calls_.end() || sender == nullptr) return;
  const bool isProven = std::ranges::find(call->repliers, sender) != call->repliers.end() ||
                        (isFromBus(reply) && isError(reply));
  if (!isProven) return;
  std::list<Call> answered;
  answered.splice(answered.end(), calls_, call);
  answered.front().handler(reply);
}

void BusRequests::receiveOwnerChange(sd_bus_message* signal) {
  const char* name = nullptr;
  const char* oldOwner = nullptr;
  const char* newOwner = nullptr;
  if (sd_bus_message_read(signal, "sss", &name, &oldOwner, &newOwner) <= 0) return;
  // A handler may end any watch and begin others, which are appended.
  for (std::uint64_t seen = 0, last = lastId_;;) {
    const auto next = std::ranges::find_if(watches_, [&](const Watch& watch) {
      return watch.id > seen && watch.id <= last && watch.name == name;
    });
    if (next == watches_.end()) return;
    seen = next->id;
    const OwnerHandler handler = next->handler;
    handler(newOwner);
  }
}

int BusRequests::onMessage(sd_bus_message* message, void* userdata, sd_bus_error*) {
  return withoutExceptions([&] {
    static_cast<BusRequests*>(userdata)->receive(message);
    return 0;
  });
}

}  // namespace tessaloom
