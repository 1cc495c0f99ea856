#include "linux/BusName.h"

#include <utility>

#include "TLFoundation/ErrnoText.h"

namespace tessaloom {

namespace {

/// The bus's flag and replies, as the D-Bus protocol numbers them.
constexpr std::uint32_t doNotQueue = 4;
constexpr std::uint32_t isPrimaryOwner = 1;
constexpr std::uint32_t isAlreadyOwner = 4;

}  // namespace

BusName::BusName(BusRequests& requests, std::string name)
    : requests_(requests), name_(std::move(name)) {}

void BusName::acquire() {
  if (isPending() || isOwned()) return;
  failure_.reset();
  auto request = requests_.askBus(
      "RequestName", [this](sd_bus_message* reply) { receiveAcquired(reply); }, "su", name_.c_str(),
      doNotQueue);
  if (!request) return fail(errnoText(request.error()));
  request_ = *std::move(request);
  state_ = State::acquiring;
}

void BusName::release() {
  if (!isOwned()) return;
  auto request = requests_.askBus(
      "ReleaseName", [this](sd_bus_message*) { state_ = State::none; }, "s", name_.c_str());
  state_ = request ? State::releasing : State::none;
  if (request) request_ = *std::move(request);
}

void BusName::receiveAcquired(sd_bus_message* reply) {
  if (const sd_bus_error* error = sd_bus_message_get_error(reply)) {
    return fail(error->message != nullptr ? error->message : error->name);
  }
  std::uint32_t result = 0;
  const int read = sd_bus_message_read(reply, "u", &result);
  if (read < 0) return fail(errnoText(-read));
  if (result != isPrimaryOwner && result != isAlreadyOwner) return fail("another process has it");
  state_ = State::owned;
}

void BusName::fail(std::string reason) {
  state_ = State::none;
  failure_ = std::move(reason);
}

}  // namespace tessaloom
