#include "linux/BusListener.h"

#include <malloc.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>
#include <system_error>
#include <utility>

#include "HelperProtocol/HelperConstants.h"
#include "HelperProtocol/Methods.h"
#include "HelperProtocol/linux/BusCallback.h"
#include "HelperProtocol/linux/SessionBus.h"
#include "Log.h"
#include "linux/PeerFacts.h"
#include "linux/SystemdUnit.h"

namespace tessaloom {

namespace {

constexpr int stopTick = 100;  // Milliseconds.
constexpr std::chrono::seconds starvationLimit{5};
/// Messages that wait in the library for the bus to take them.
constexpr std::uint64_t maximumQueued = 1'024;
/// What the kernel has can no longer be sent round-robin. The system's own size holds hundreds of
/// replies; the bus takes a millisecond over each while a caller has many calls unanswered.
constexpr int sendBufferBytes = 32'768;
/// With more failures of the library without a message in between, the connection is of no use.
constexpr int maximumFailures = 1'000;
/// Other events are handled after at most this many messages.
constexpr int maximumBurst = 64;

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

PeerCheckRunner::Check checkOf(PeerRequirement requirement) {
  return [requirement = std::move(requirement),
          runtimeDirectory = userRuntimeDirectory()](pid_t process) -> std::expected<bool, int> {
    const auto facts = readPeerFacts(process, runtimeDirectory);
    if (!facts) return std::unexpected(facts.error());
    return requirement.admits(*facts);
  };
}

void require(int result, const char* what) {
  if (result < 0) throw std::system_error(-result, std::generic_category(), what);
}

}  // namespace

class BusListener::ExitCompletion final : public CompletionQueue::Completion {
 public:
  explicit ExitCompletion(BusListener& listener) : listener_(listener) {}
  void run() override { listener_.beginExit(); }

 private:
  BusListener& listener_;
};

BusListener::BusListener(Collaborators collaborators)
    : collaborators_(std::move(collaborators)),
      requests_(collaborators_.bus),
      name_(requests_, serviceName),
      scheduler_(collaborators_.bus, completions_, collaborators_.engineTasks),
      checks_(completions_, collaborators_.peerCheckTasks, checkOf(collaborators_.requirement),
              [&kernel = collaborators_.context.kernel] { kernel.releaseKeptDescriptors(); }),
      peers_(collaborators_.bus, requests_, checks_, collaborators_.requirement.user(),
             collaborators_.queueTasks, collaborators_.context),
      table_(methodTable(onMethod)),
      exitCompletion_(std::make_unique<ExitCompletion>(*this)) {
  ::setsockopt(sd_bus_get_fd(collaborators_.bus), SOL_SOCKET, SO_SNDBUF, &sendBufferBytes,
               sizeof sendBufferBytes);
  // Filters run before the library answers calls by itself (introspection, pings), so a peer that
  // is not admitted gets no such answer either.
  sd_bus_slot* slot = nullptr;
  require(sd_bus_add_filter(collaborators_.bus, &slot, onCall, this), "sd_bus_add_filter");
  filter_.reset(slot);
  require(sd_bus_add_object_vtable(collaborators_.bus, &slot, HelperConstants::objectPath,
                                   HelperConstants::interfaceName, table_.data(), this),
          "sd_bus_add_object_vtable");
  object_.reset(slot);
}

BusListener::~BusListener() = default;

int BusListener::run() try {
  name_.acquire();
  for (;;) {
    completions_.runAll();
    scheduler_.sendReplies();
    if (const auto status = process()) return *status;
    if (burst_ > 0 && burst_ < maximumBurst) continue;
    if (const auto status = advance()) return *status;
    wait();
  }
} catch (const std::bad_alloc&) {
  return endAtOnce("out of memory");
}

void BusListener::requestExit() noexcept {
  if (!isExitRequested_.exchange(true)) completions_.post(*exitCompletion_);
}

// Handles one message. Reading goes on while replies wait for the bus to take them, so that no
// caller's calls hold up another's; the scheduler bounds what that makes wait. Only what the
// library itself has to send, such as refusals of peers that are not admitted, is bounded by
// reading no more: then the connection is written to when the bus is ready for it.
std::optional<int> BusListener::process() {
  const bool mayProcess = std::exchange(isBusReady_, false) || mayRead();
  const int processed = mayProcess ? sd_bus_process(collaborators_.bus, nullptr) : 0;
  burst_ = processed > 0 ? burst_ + 1 : 0;
  if (processed >= 0) {
    starvedSince_.reset();
    failures_ = 0;
    return std::nullopt;
  }
  burst_ = maximumBurst;  // Other events come first, but the library is asked again without a wait.
  if (processed == -ENOMEM) {
    if (waitForMemory()) return std::nullopt;
    return endAtOnce("out of memory reading from the session bus");
  }
  if (sd_bus_is_open(collaborators_.bus) <= 0 || ++failures_ > maximumFailures) {
    return endAtOnce("the session bus was lost");
  }
  if (processed == -ENOBUFS && !isUnreadable_) stopUnreadable();
  // Otherwise the library failed at a message that it handles by itself, which is gone, such as
  // GetMachineId on a machine without an id.
  return std::nullopt;
}

// A call that was authorized, of a method in the table with the right signature.
int BusListener::accept(sd_bus_message* message) {
  const Peer* peer = peers_.find(sd_bus_message_get_sender(message));
  const Method& method = *findMethod(sd_bus_message_get_member(message));
  if (phase_ == Phase::stopping) {
    return sd_bus_reply_method_errorf(message, SD_BUS_ERROR_FAILED, "The helper is stopping.");
  }
  if (isStopAnnounced_ && Method::runsEngine(method.kind)) extendStop();
  return scheduler_.accept(message, method, peer->connection);
}

std::optional<int> BusListener::advance() {
  switch (phase_) {
    case Phase::starting:
      return advanceStarting();
    case Phase::serving:
      return advanceServing();
    case Phase::exiting:
      return advanceExit();
    case Phase::stopping:
      return advanceStopping();
  }
  return std::nullopt;
}

std::optional<int> BusListener::advanceStarting() {
  if (name_.isOwned()) {
    phase_ = Phase::serving;
    return advanceServing();
  }
  if (name_.isPending()) return std::nullopt;
  logLine("could not take the name " + serviceName, name_.failure().value_or(""));
  return 1;
}

std::optional<int> BusListener::advanceServing() {
  if (!isReadyAnnounced_) isReadyAnnounced_ = notifyManager("READY=1");
  return std::nullopt;
}

// The service manager is notified first: a start of the unit that the bus then asks for waits for
// this process's end, where it would be taken as done already while the unit counts as running.
void BusListener::beginExit() {
  isExitRequested_ = false;
  if (phase_ != Phase::serving) return;
  // A call may have come since the check. Without the name, this process could not be asked to
  // cancel it. A manager that does not take the notice now would not start another helper.
  if (scheduler_.hasEngineCalls() || !notifyManager("STOPPING=1")) {
    return collaborators_.context.exitWhenIdle.scheduleExitWhenIdle(ExitWhenIdle::nextCheck);
  }
  phase_ = Phase::exiting;
  stopDeadline_ = Clock::now() + stopLimit;
  isStopAnnounced_ = true;
  name_.release();
}

// A manager that was notified of a stop kills the process when that takes too long; a generation
// and its end take less than this.
void BusListener::extendStop() {
  notifyManager("EXTEND_TIMEOUT_USEC=330000000");
}

std::optional<int> BusListener::advanceExit() {
  if (name_.isPending()) return std::nullopt;
  if (name_.isOwned()) {
    phase_ = Phase::serving;
    collaborators_.context.exitWhenIdle.scheduleExitWhenIdle(ExitWhenIdle::nextCheck);
    return std::nullopt;
  }
  // The bus may deliver calls until it has taken the name back. One that runs an engine must be
  // served by the owner of the name, so the name is requested again; the bus then delivers the
  // calls that it has kept for the next owner. If the name has another owner by then, the engine
  // runs without the name.
  if (scheduler_.hasEngineCalls() && !name_.failure()) {
    name_.acquire();
    return std::nullopt;
  }
  // A caller that goes on calling by the unique name may leave no moment without an unanswered
  // call.
  if (scheduler_.hasEngineCalls()) stopDeadline_ = Clock::now() + stopLimit;
  if (Clock::now() < stopDeadline_) {
    if (!isSettled() || isAsking_) return std::nullopt;
    if (arrivalsConfirmed_ != arrivals_) {
      startRoundTrip();
      return std::nullopt;
    }
  }
  logLine(ExitWhenIdle::exitLine);
  return 0;
}

// The bus accepts messages of up to 128 MiB and adds the sender's name; the library refuses to read
// what then has that size. It can still write, so what has been accepted is answered; the next call
// starts a helper that can read.
void BusListener::stopUnreadable() {
  isUnreadable_ = true;
  logLine("the session bus can no longer be read; exiting");
  beginStopping(std::nullopt);
}

void BusListener::beginStopping(std::optional<int> signal) {
  if (phase_ == Phase::stopping) return;
  phase_ = Phase::stopping;
  stopSignal_ = signal;
  stopDeadline_ = Clock::now() + stopLimit;
  lastProgress_ = Clock::now();
  notifyManager("STOPPING=1");
}

std::optional<int> BusListener::advanceStopping() {
  collaborators_.endEngines();
  if (!name_.isPending()) name_.release();
  const auto now = Clock::now();
  const std::size_t unanswered = scheduler_.unansweredCount();
  const bool hasProgress = std::exchange(unanswered_, unanswered) != unanswered;
  if (hasProgress || scheduler_.hasRunningCalls()) lastProgress_ = now;
  const bool isOver = now >= stopDeadline_ || now - lastProgress_ >= busLimit;
  if (!isOver && !isSettled()) return std::nullopt;
  return stopSignal_ ? reportEnd(*stopSignal_) : 1;
}

// The library wants to write for as long as something is queued.
bool BusListener::isSettled() {
  if (scheduler_.unansweredCount() > 0) return false;
  if ((sd_bus_get_events(collaborators_.bus) & POLLOUT) != 0) return false;
  // Then neither the release of the name nor the identity of a caller can be received.
  if (isUnreadable_) return true;
  return !name_.isOwned() && !name_.isPending() && !peers_.hasHeldCalls();
}

void BusListener::startRoundTrip() {
  auto request = requests_.askBus(
      "GetId",
      [this, asked = arrivals_](sd_bus_message*) {
        isAsking_ = false;
        arrivalsConfirmed_ = asked;
      },
      "");
  isAsking_ = request.has_value();
  if (request) {
    roundTrip_ = *std::move(request);
  } else {
    arrivalsConfirmed_ = arrivals_;
  }
}

// Also in the lack of memory: what a step needs then may be there at the next turn. A session ends
// the bus and the helper at the same moment; then the signal is the reason.
int BusListener::endAtOnce(std::string_view reason) {
  const auto deadline = Clock::now() + stopLimit;
  while (scheduler_.hasRunningCalls() && Clock::now() < deadline) {
    try {
      collaborators_.endEngines();
      waitForCompletions();
      completions_.runAll();
    } catch (const std::bad_alloc&) {
      continue;
    }
  }
  try {
    readSignals();
    if (stopSignal_) return reportEnd(*stopSignal_);
    logLine(reason);
  } catch (const std::bad_alloc&) {  // NOLINT(bugprone-empty-catch): the exit status remains.
  }
  return 1;
}

bool BusListener::mayRead() const {
  return !isUnreadable_ && queuedMessages(collaborators_.bus) < maximumQueued;
}

// The library's own time limits apply while the connection begins, when no wait is long.
void BusListener::wait() {
  int limit = phase_ == Phase::serving && isReadyAnnounced_ ? -1 : stopTick;
  if (std::exchange(burst_, 0) > 0) limit = 0;
  if (limit != 0) scheduler_.releaseMemory();
  const int wanted = std::max(sd_bus_get_events(collaborators_.bus), 0);
  const int events = mayRead() ? wanted : wanted & POLLOUT;
  std::array<pollfd, 3> watched{
      pollfd{.fd = sd_bus_get_fd(collaborators_.bus),
             .events = static_cast<short>(events),
             .revents = 0},
      pollfd{.fd = completions_.descriptor(), .events = POLLIN, .revents = 0},
      pollfd{.fd = collaborators_.signals.descriptor(), .events = POLLIN, .revents = 0}};
  if (::poll(watched.data(), watched.size(), limit) <= 0) return;
  isBusReady_ = watched[0].revents != 0;
  if (watched[2].revents != 0) readSignals();
}

// A message for which there is no memory stays in the library and would be tried again without a
// pause. Replies that are sent free memory; if that does not help, the process exits, and the next
// call starts a new one.
bool BusListener::waitForMemory() {
  static_cast<void>(::malloc_trim(0));
  waitForCompletions();
  if (!starvedSince_) starvedSince_ = Clock::now();
  return Clock::now() - *starvedSince_ < starvationLimit;
}

void BusListener::waitForCompletions() {
  pollfd posted{.fd = completions_.descriptor(), .events = POLLIN, .revents = 0};
  ::poll(&posted, 1, stopTick);
}

void BusListener::readSignals() {
  while (const auto signal = collaborators_.signals.next()) beginStopping(signal);
}

int BusListener::onCall(sd_bus_message* call, void* userdata, sd_bus_error*) {
  std::uint8_t type = 0;
  if (sd_bus_message_get_type(call, &type) < 0 || type != SD_BUS_MESSAGE_METHOD_CALL) return 0;
  return withoutExceptions([&] {
    auto& listener = *static_cast<BusListener*>(userdata);
    ++listener.arrivals_;
    listener.failures_ = 0;
    return listener.peers_.authorize(call);
  });
}

int BusListener::onMethod(sd_bus_message* call, void* userdata, sd_bus_error*) {
  return withoutExceptions([&] { return static_cast<BusListener*>(userdata)->accept(call); });
}

}  // namespace tessaloom
