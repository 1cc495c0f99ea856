#pragma once

#include <memory>

#include <systemd/sd-bus.h>

namespace tessaloom {

// Owners of sd-bus's counted objects, for one thread.

struct BusCloser {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
struct SlotReleaser {
  void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
struct MessageReleaser {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};

using Bus = std::unique_ptr<sd_bus, BusCloser>;
using Slot = std::unique_ptr<sd_bus_slot, SlotReleaser>;
using Message = std::unique_ptr<sd_bus_message, MessageReleaser>;

}  // namespace tessaloom
