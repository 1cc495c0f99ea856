#pragma once

#include <memory>

#include <systemd/sd-bus.h>

namespace tessaloom {

/// Calls one of sd-bus's release functions on what it owns.
template <auto Release>
struct BusRelease {
  template <class Object>
  void operator()(Object* object) const {
    Release(object);
  }
};

// The owning types of sd-bus's objects. Neither the objects nor their reference counts are safe to
// touch from two threads: all of them stay on the thread that owns the connection.
/// Closing drops what has not been sent, and so never waits for a bus that has stopped.
using BusHandle = std::unique_ptr<sd_bus, BusRelease<sd_bus_close_unref>>;
using BusMessage = std::unique_ptr<sd_bus_message, BusRelease<sd_bus_message_unref>>;
using BusSlot = std::unique_ptr<sd_bus_slot, BusRelease<sd_bus_slot_unref>>;

inline BusMessage retain(sd_bus_message* message) {
  return BusMessage(sd_bus_message_ref(message));
}

}  // namespace tessaloom
