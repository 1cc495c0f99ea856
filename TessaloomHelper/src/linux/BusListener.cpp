#include "linux/BusListener.h"

#include <malloc.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <utility>

#include <systemd/sd-daemon.h>

#include "HelperProtocol/HelperConstants.h"
#include "HelperProtocol/Methods.h"
#include "HelperProtocol/linux/BusCallback.h"
#include "Log.h"
#include "TLFoundation/ErrnoText.h"
#include "linux/FlatpakInstance.h"
#include "linux/PeerFacts.h"

namespace tessaloom {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds stopTick{100};
constexpr std::chrono::seconds starvationLimit{5};
// A caller that keeps calling by the unique name could hold a leaving helper for ever.
constexpr int maximumRoundTrips = 20;
constexpr std::uint64_t maximumQueuedReplies = 64;

const std::string serviceName(HelperConstants::machServiceName);

std::vector<sd_bus_vtable> methodTable(sd_bus_message_handler_t handler) {
  std::vector<sd_bus_vtable> table;
  table.push_back(SD_BUS_VTABLE_START(0));
  for (const Method& method : methods) {
    const char* request = method.takesRequest() ? "ay" : "";
    const char* names = method.takesRequest() ? "request\0reply\0" : "reply\0";
    sd_bus_vtable row =
        SD_BUS_METHOD(method.name, request, method.result, handler, SD_BUS_VTABLE_UNPRIVILEGED);
    row.x.method.names = names;
    table.push_back(row);
  }
  table.push_back(SD_BUS_VTABLE_END);
  return table;
}

// A view of the request's bytes, which the message owns.
std::expected<std::string_view, int> requestOf(sd_bus_message* call, const Method& method) {
  if (!method.takesRequest()) return std::string_view();
  const void* bytes = nullptr;
  std::size_t size = 0;
  const int result = sd_bus_message_read_array(call, 'y', &bytes, &size);
  if (result < 0) return std::unexpected(result);
  return std::string_view(static_cast<const char*>(bytes), size);
}

// How long the library wants to wait at most; nothing when for ever.
std::optional<std::chrono::microseconds> waitLimit(sd_bus* bus) {
  std::uint64_t wakeAt = UINT64_MAX;  // Microseconds of the monotonic clock.
  if (sd_bus_get_timeout(bus, &wakeAt) < 0 || wakeAt == UINT64_MAX) return std::nullopt;
  const auto now =
      std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch());
  const auto left = std::chrono::microseconds(static_cast<std::int64_t>(wakeAt)) - now;
  return std::max(left, std::chrono::microseconds(0));
}

PeerVetting::Check checkOf(PeerRequirement requirement) {
  return [requirement = std::move(requirement),
          runtimeDirectory = userRuntimeDirectory()](pid_t process) -> std::expected<bool, int> {
    const auto facts = readPeerFacts(process, runtimeDirectory);
    if (!facts) return std::unexpected(facts.error());
    return requirement.admits(*facts);
  };
}

timespec timespecOf(std::chrono::nanoseconds duration) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(duration);
  return {.tv_sec = seconds.count(), .tv_nsec = (duration - seconds).count()};
}

}  // namespace

class BusListener::AcceptedCall final : public BusCall {
 public:
  AcceptedCall(BusListener& listener, BusMessage call, std::string callSender, CallWeight load)
      : BusCall(std::move(call), std::move(callSender), load), listener_(listener) {}

  void run() override { listener_.finish(*this); }

  std::list<AcceptedCall>::iterator position;

 private:
  BusListener& listener_;
};

class BusListener::LeaveCompletion final : public CompletionQueue::Completion {
 public:
  explicit LeaveCompletion(BusListener& listener) : listener_(listener) {}
  void run() override { listener_.beginLeaving(); }

 private:
  BusListener& listener_;
};

BusListener::BusListener(Environment environment)
    : environment_(std::move(environment)),
      requests_(environment_.bus),
      vetting_(completions_, environment_.vettingTasks, checkOf(environment_.requirement),
               [&kernel = environment_.context.kernel] { kernel.releaseKeptDescriptors(); }),
      peers_(environment_.bus, requests_, vetting_, environment_.requirement.user(),
             environment_.queueTasks, environment_.context),
      table_(methodTable(onMethod)),
      leaveCompletion_(std::make_unique<LeaveCompletion>(*this)) {}

BusListener::~BusListener() = default;

std::expected<void, std::string> BusListener::start() {
  sd_bus* bus = environment_.bus;
  const auto failure = [](int result) { return std::unexpected(errnoText(-result)); };
  // Filters see a call before the library answers what it knows by itself (introspection, pings):
  // nobody who is not admitted gets past.
  sd_bus_slot* slot = nullptr;
  int result = sd_bus_add_filter(bus, &slot, onCall, this);
  if (result < 0) return failure(result);
  filter_.reset(slot);
  result = sd_bus_add_object_vtable(bus, &slot, HelperConstants::objectPath,
                                    HelperConstants::interfaceName, table_.data(), this);
  if (result < 0) return failure(result);
  object_.reset(slot);
  result = sd_bus_request_name(bus, serviceName.c_str(), 0);
  if (result == -EEXIST) return std::unexpected("another process has it");
  if (result < 0) return failure(result);
  sd_notify(0, "READY=1");
  return {};
}

int BusListener::run() {
  for (;;) {
    completions_.runAll();
    sendBacklog();
    const int processed = sd_bus_process(environment_.bus, nullptr);
    if (processed == -ENOMEM && waitForMemory()) continue;
    if (processed == -ENOMEM) return endAtOnce("no memory to read a message from the session bus");
    if (processed < 0) return endAtOnce("the session bus was lost");
    starvedSince_.reset();
    if (processed > 0) continue;
    if (const auto status = advance()) return *status;
    wait();
  }
}

void BusListener::leave() noexcept {
  if (!isLeaveRequested_.exchange(true)) completions_.post(*leaveCompletion_);
}

// A call of an admitted caller, of a method with the right signature.
int BusListener::accept(sd_bus_message* message) {
  Peer* caller = peers_.find(sd_bus_message_get_sender(message));
  const Method* method = findMethod(sd_bus_message_get_member(message));
  if (caller == nullptr || !caller->connection || method == nullptr) return -EINVAL;
  if (phase_ == Phase::stopping) {
    return sd_bus_reply_method_errorf(message, SD_BUS_ERROR_FAILED, "The helper is stopping.");
  }
  const auto request = requestOf(message, *method);
  if (!request) return request.error();
  const CallWeight weight{.kind = method->kind, .bytes = request->size()};
  const bool runsEngine = weight.kind == Method::Kind::engine;
  if (!caller->waiting.fits(weight) || (runsEngine && engineCalls_ >= maximumEngineCalls)) {
    return sd_bus_reply_method_errorf(message, SD_BUS_ERROR_LIMITS_EXCEEDED,
                                      "Too many calls are waiting, or too large ones.");
  }

  const auto reply = std::make_shared<Responder>(completions_);
  std::function<void()> job = [connection = caller->connection, method, body = Bytes(*request),
                               reply]() mutable {
    if (connection->isGone) return;
    try {
      connection->service.call(*method, body, [reply](Reply outcome) {
        std::visit([&](auto&& value) { reply->answer(std::move(value)); }, std::move(outcome));
      });
    } catch (const std::exception&) {
      reply->answer(CallOutcome());  // No memory to begin with.
    }
  };
  calls_.emplace_back(*this, retain(message), caller->name, weight);
  calls_.back().position = std::prev(calls_.end());
  caller->waiting.add(weight);
  if (runsEngine) ++engineCalls_;
  reply->bind(calls_.back());
  try {
    caller->connection->queue.submit(std::move(job));
  } catch (const std::exception&) {
    reply->answer(CallOutcome());  // Nor for a place in the queue.
  }
  return 1;
}

void BusListener::finish(AcceptedCall& call) {
  if (call.weight.kind == Method::Kind::engine) --engineCalls_;
  // The answer for a caller that has gone is dropped.
  if (Peer* caller = peers_.find(call.sender)) {
    caller->waiting.remove(call.weight);
    sendReply(call.message.get(), call.outcome);
  }
  calls_.erase(call.position);
}

void BusListener::beginLeaving() {
  if (phase_ != Phase::serving) return;
  phase_ = Phase::leaving;
  releaseName();
}

void BusListener::beginStopping() {
  if (phase_ == Phase::stopping) return;
  stopDeadline_ = Clock::now() + stopLimit;
  if (std::exchange(phase_, Phase::stopping) == Phase::serving) releaseName();
}

// The service manager hears of it first: a start of the unit that the bus then asks for waits for
// this process's end, where it would be taken as done already while the unit counts as running.
void BusListener::releaseName() {
  sd_notify(0, "STOPPING=1");
  const int result =
      sd_bus_release_name_async(environment_.bus, nullptr, serviceName.c_str(), onReleased, this);
  isReleased_ = result < 0;
}

void BusListener::startRoundTrip() {
  ++roundTrips_;
  arrivalsWhenAsked_ = arrivals_;
  const int result = sd_bus_call_method_async(environment_.bus, nullptr, "org.freedesktop.DBus",
                                              "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                              "GetId", onRoundTrip, this, nullptr);
  isAsking_ = result >= 0;
  if (!isAsking_) arrivalsConfirmed_ = arrivals_;
}

// The library wants to write for as long as something is queued.
bool BusListener::isSettled() const {
  return isReleased_ && calls_.empty() && !peers_.hasHeldCalls() &&
         (sd_bus_get_events(environment_.bus) & POLLOUT) == 0;
}

std::optional<int> BusListener::advance() {
  switch (phase_) {
    case Phase::serving:
      return std::nullopt;
    case Phase::leaving:
      return advanceLeaving();
    case Phase::stopping:
      return advanceStopping();
  }
  return std::nullopt;
}

std::optional<int> BusListener::advanceLeaving() {
  if (!isSettled() || isAsking_) return std::nullopt;
  if (arrivalsConfirmed_ != arrivals_ && roundTrips_ < maximumRoundTrips) {
    startRoundTrip();
    return std::nullopt;
  }
  constexpr std::string_view line = ExitWhenIdle::exitLine;
  [[maybe_unused]] const auto written = ::write(STDERR_FILENO, line.data(), line.size());
  return 0;
}

std::optional<int> BusListener::advanceStopping() {
  if (isSettled() || Clock::now() >= stopDeadline_) return 0;
  environment_.endEngines();
  return std::nullopt;
}

int BusListener::endAtOnce(std::string_view reason) {
  logLine(reason);
  const auto deadline = Clock::now() + stopLimit;
  while (!calls_.empty() && Clock::now() < deadline) {
    environment_.endEngines();
    waitForCompletions();
    completions_.runAll();
  }
  return 1;
}

// The bus reads every connection by small turns. Callers that ask faster than it takes the answers
// would otherwise fill this process with them: while these are written, nothing more is read, and
// finished calls keep counting against their callers' limits.
void BusListener::sendBacklog() {
  std::uint64_t queued = 0;
  if (sd_bus_get_n_queued_write(environment_.bus, &queued) < 0) return;
  if (queued > maximumQueuedReplies) sd_bus_flush(environment_.bus);
}

void BusListener::wait() {
  auto limit = waitLimit(environment_.bus);
  if (phase_ == Phase::stopping) {
    limit = std::min<std::chrono::microseconds>(limit.value_or(stopTick), stopTick);
  }
  const timespec timeout = timespecOf(limit.value_or(std::chrono::microseconds(0)));
  const int events = std::max(sd_bus_get_events(environment_.bus), 0);
  std::array<pollfd, 3> watched{
      pollfd{.fd = sd_bus_get_fd(environment_.bus),
             .events = static_cast<short>(events),
             .revents = 0},
      pollfd{.fd = completions_.descriptor(), .events = POLLIN, .revents = 0},
      pollfd{.fd = environment_.signals.get(), .events = POLLIN, .revents = 0}};
  if (::ppoll(watched.data(), watched.size(), limit ? &timeout : nullptr, nullptr) <= 0) return;
  if (watched[2].revents != 0) readSignals();
}

// A message that finds no memory stays where it is, and would be tried again without a pause.
// Answers that go out make room; a process that nothing helps leaves, and the next call starts one.
bool BusListener::waitForMemory() {
  static_cast<void>(::malloc_trim(0));
  waitForCompletions();
  if (!starvedSince_) starvedSince_ = Clock::now();
  return Clock::now() - *starvedSince_ < starvationLimit;
}

void BusListener::waitForCompletions() {
  pollfd posted{.fd = completions_.descriptor(), .events = POLLIN, .revents = 0};
  ::poll(&posted, 1, static_cast<int>(stopTick.count()));
}

void BusListener::readSignals() {
  signalfd_siginfo signal{};
  while (::read(environment_.signals.get(), &signal, sizeof signal) == sizeof signal) {
    beginStopping();
  }
}

int BusListener::onCall(sd_bus_message* call, void* userdata, sd_bus_error*) {
  std::uint8_t type = 0;
  if (sd_bus_message_get_type(call, &type) < 0 || type != SD_BUS_MESSAGE_METHOD_CALL) return 0;
  return withoutExceptions([&] {
    auto& listener = *static_cast<BusListener*>(userdata);
    ++listener.arrivals_;
    return listener.peers_.authorize(call);
  });
}

int BusListener::onMethod(sd_bus_message* call, void* userdata, sd_bus_error*) {
  return withoutExceptions([&] { return static_cast<BusListener*>(userdata)->accept(call); });
}

int BusListener::onReleased(sd_bus_message*, void* userdata, sd_bus_error*) {
  static_cast<BusListener*>(userdata)->isReleased_ = true;
  return 0;
}

int BusListener::onRoundTrip(sd_bus_message*, void* userdata, sd_bus_error*) {
  auto& listener = *static_cast<BusListener*>(userdata);
  listener.isAsking_ = false;
  listener.arrivalsConfirmed_ = listener.arrivalsWhenAsked_;
  return 0;
}

}  // namespace tessaloom
