#include "linux/BusCallers.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

#include "HelperProtocol/linux/BusCallback.h"

namespace tessaloom {

namespace {

constexpr const char* busName = "org.freedesktop.DBus";
constexpr const char* busPath = "/org/freedesktop/DBus";
constexpr const char* unknownNameError = "org.freedesktop.DBus.Error.NameHasNoOwner";

struct Credentials {
  std::optional<std::uint32_t> user;
  std::optional<std::uint32_t> process;
};

// The two entries that matter of the bus's a{sv} about a connection.
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

int replyAccessDenied(sd_bus_message* call) {
  return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_ACCESS_DENIED,
                                    "Only the editor and the helper's own client may call.");
}

int replyTooMany(sd_bus_message* call, const char* what) {
  return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_LIMITS_EXCEEDED, "Too many %s.", what);
}

}  // namespace

// Reads a peer's facts on another thread and brings the decision back.
class BusCallers::Vetting final : public BusMailbox::Letter {
 public:
  Vetting(BusCallers& callers, std::string name, pid_t process, uid_t user)
      : callers_(callers), name_(std::move(name)), process_(process), user_(user) {}

  void decide() noexcept {
    try {
      const auto facts = readPeerFacts(process_, user_);
      isAdmitted_ = facts && callers_.requirement_.admits(*facts);
    } catch (const std::exception&) {
      isAdmitted_ = false;
    }
    callers_.mailbox_.post(*this);
  }

  void open() override {
    BusCallers& callers = callers_;
    callers.decide(name_, isAdmitted_);
    callers.vettings_.remove_if([this](const Vetting& vetting) { return &vetting == this; });
  }

 private:
  BusCallers& callers_;
  std::string name_;
  pid_t process_;
  uid_t user_;
  bool isAdmitted_ = false;
};

BusCallers::BusCallers(sd_bus* bus, BusMailbox& mailbox, Tasks& tasks, Tasks& queueTasks,
                       const ServiceContext& context, PeerRequirement requirement)
    : bus_(bus),
      mailbox_(mailbox),
      tasks_(tasks),
      queueTasks_(queueTasks),
      context_(context),
      requirement_(std::move(requirement)) {}

BusCallers::~BusCallers() = default;

int BusCallers::vet(sd_bus_message* call) {
  const char* sender = sd_bus_message_get_sender(call);
  if (sender == nullptr) return replyAccessDenied(call);
  BusCaller* caller = find(sender);
  if (caller == nullptr) caller = meet(sender);
  if (caller == nullptr) return replyTooMany(call, "callers");
  switch (caller->standing) {
    case BusCaller::Standing::admitted:
      return 0;
    case BusCaller::Standing::undecided:
      return hold(*caller, call);
    case BusCaller::Standing::refused:
      break;
  }
  return replyAccessDenied(call);
}

BusCaller* BusCallers::find(std::string_view name) {
  const auto found = callers_.find(std::string(name));
  return found == callers_.end() ? nullptr : found->second.get();
}

bool BusCallers::hasHeldCalls() const {
  return std::ranges::any_of(callers_,
                             [](const auto& entry) { return !entry.second->held.empty(); });
}

// One match for each caller rather than one for all names: the bus then wakes the helper only for
// its own callers' ends, not for every program that leaves the session. It is asked for before the
// credentials, so that a sender that vanishes in between is noticed by one of the two.
BusCaller* BusCallers::meet(const char* name) {
  if (!makeRoom()) return nullptr;
  auto caller = std::make_unique<BusCaller>(*this, name);
  const std::string match =
      "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
      "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg2='',arg0='" +
      caller->name + "'";
  sd_bus_slot* departure = nullptr;
  const int watched = sd_bus_add_match_async(bus_, &departure, match.c_str(), onDeparture,
                                             onWatching, caller.get());
  caller->departure.reset(departure);
  sd_bus_slot* credentials = nullptr;
  const int asked =
      sd_bus_call_method_async(bus_, &credentials, busName, busPath, busName,
                               "GetConnectionCredentials", onCredentials, caller.get(), "s", name);
  caller->credentials.reset(credentials);
  if (watched < 0 || asked < 0) return nullptr;
  return callers_.emplace(caller->name, std::move(caller)).first->second.get();
}

// Peers that were refused may be forgotten, to be vetted again should they call again: they cannot
// fill the table.
bool BusCallers::makeRoom() {
  if (callers_.size() < maximumCallers) return true;
  return std::erase_if(callers_, [](const auto& entry) {
           return entry.second->standing == BusCaller::Standing::refused;
         }) > 0;
}

int BusCallers::hold(BusCaller& caller, sd_bus_message* call) {
  if (caller.held.size() >= maximumHeldCalls) return replyTooMany(call, "calls are waiting");
  caller.held.push_back(retain(call));
  return 1;
}

void BusCallers::startVetting(BusCaller& caller, sd_bus_message* reply) {
  const auto credentials = readCredentials(reply);
  if (!credentials || !credentials->user || !credentials->process) return refuse(caller);
  Vetting& vetting = vettings_.emplace_back(
      *this, caller.name, static_cast<pid_t>(*credentials->process), *credentials->user);
  try {
    tasks_.runConcurrently(QualityOfService::userInitiated, [&vetting] { vetting.decide(); });
  } catch (...) {
    vettings_.pop_back();
    refuse(caller);
  }
}

void BusCallers::decide(const std::string& name, bool isAdmitted) {
  BusCaller* caller = find(name);
  if (caller == nullptr) return;
  isAdmitted ? admit(*caller) : refuse(*caller);
}

void BusCallers::refuse(BusCaller& caller) {
  caller.standing = BusCaller::Standing::refused;
  for (const BusMessage& call : std::exchange(caller.held, {})) replyAccessDenied(call.get());
}

void BusCallers::admit(BusCaller& caller) {
  caller.connection = std::make_shared<CallerConnection>(context_, queueTasks_);
  caller.standing = BusCaller::Standing::admitted;
  // Back to where they came from, ahead of everything that was not read yet.
  for (const BusMessage& call : std::exchange(caller.held, {})) {
    const int result = sd_bus_enqueue_for_read(bus_, call.get());
    if (result < 0) sd_bus_reply_method_errno(call.get(), result, nullptr);
  }
}

void BusCallers::forget(const std::string& name) {
  const auto found = callers_.find(name);
  if (found == callers_.end()) return;
  if (found->second->connection) found->second->connection->isGone = true;
  callers_.erase(found);
}

int BusCallers::onDeparture(sd_bus_message*, void* userdata, sd_bus_error*) {
  return withoutExceptions([&] {
    auto& caller = *static_cast<BusCaller*>(userdata);
    caller.callers.forget(std::string(caller.name));
    return 0;
  });
}

int BusCallers::onWatching(sd_bus_message* reply, void* userdata, sd_bus_error*) {
  return withoutExceptions([&] {
    auto& caller = *static_cast<BusCaller*>(userdata);
    if (sd_bus_message_is_method_error(reply, nullptr) > 0) caller.callers.refuse(caller);
    return 0;
  });
}

int BusCallers::onCredentials(sd_bus_message* reply, void* userdata, sd_bus_error*) {
  return withoutExceptions([&] {
    auto& caller = *static_cast<BusCaller*>(userdata);
    BusCallers& callers = caller.callers;
    if (caller.standing != BusCaller::Standing::undecided) return 0;
    if (sd_bus_message_is_method_error(reply, nullptr) == 0) {
      callers.startVetting(caller, reply);
      return 0;
    }
    callers.refuse(caller);
    if (sd_bus_message_is_method_error(reply, unknownNameError) > 0) {
      callers.forget(std::string(caller.name));
    }
    return 0;
  });
}

}  // namespace tessaloom
