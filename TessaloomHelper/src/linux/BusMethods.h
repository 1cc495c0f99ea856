#pragma once

#include <span>

#include "HelperProtocol/HelperServicing.h"
#include "linux/BusCall.h"
#include "linux/CallLoad.h"

namespace tessaloom {

/// One method of the interface on the bus.
struct BusMethod {
  const char* name;
  bool hasRequest;
  const char* result;  ///< D-Bus signature of the return value.
  CallKind kind;
  void (*call)(HelperServicing& service, Bytes&& request, const CallReply& reply);
};

std::span<const BusMethod> busMethods();

}  // namespace tessaloom
