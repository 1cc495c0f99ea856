#pragma once

#include <cstdint>
#include <vector>

#include "TLFoundation/Mutex.h"
#include "TLFoundation/Pipe.h"
#include "Transport.h"

namespace tessaloom {

/// Carries replies from XPC's queue to the thread that owns the transport, and makes a descriptor
/// readable when there are some. Safe from any thread.
class ReplyInbox {
 public:
  struct Item {
    std::uint64_t call;
    CallReply reply;
  };

  /// Throws std::system_error.
  ReplyInbox();

  void put(std::uint64_t call, CallReply reply) TL_EXCLUDES(lock_);

  /// All replies so far, in the order of their arrival.
  std::vector<Item> take() TL_EXCLUDES(lock_);

  /// Readable while there is something to take.
  int descriptor() const { return wake_.readEnd.get(); }

 private:
  Mutex lock_;
  std::vector<Item> items_ TL_GUARDED_BY(lock_);
  Pipe wake_;
};

}  // namespace tessaloom
