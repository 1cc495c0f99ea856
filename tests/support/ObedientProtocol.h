#pragma once

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <cstdint>

/// What a parent asks of an obedient process: packets of a fixed size, each with at most one
/// descriptor. The answer is a number of 32 bits: what the system call returned.
namespace tessaloom::obedient {

inline constexpr int channel = 0;

enum class Command : std::int32_t {
  keep,              ///< Keeps the descriptor that comes with the request; returns its number.
  close,             ///< `first`.
  setName,           ///< `text`.
  hideFromOthers,    ///< Stops being dumpable.
  becomeUser,        ///< `first`.
  takeTerminal,      ///< Leads a session whose terminal is `text`.
  startThread,       ///< One that sleeps.
  leaveMainThread,   ///< Answers from another thread; the main thread exits.
  startThreadApart,  ///< One with descriptors, and where allowed a network, of its own, that
                     ///< listens; returns the port.
  forkTwin,          ///< Returns its pid; it ends with its parent.
  forkHeir,          ///< Returns its pid; it outlives its parent, for a minute at most.
  forkSharing,       ///< With the same table of descriptors, of which it closes `first` at SIGUSR1.
  forkZombie,        ///< Returns its pid; it has exited and is never reaped.
  enterNetwork,      ///< A network namespace of its own; -1 where that is not allowed.
  churnSockets,      ///< Binds the UDP ports from 10,000 on, `first` of them, that stay; as many
                     ///< from 20,000 on come and go from then on.
  listen,            ///< On a port of the kernel's choice; returns the descriptor.
};

struct Request {
  Command command;
  std::int32_t first = 0;
  char text[64] = {};
};

/// A request as sendmsg(2) and recvmsg(2) take it, with room for one descriptor.
struct Packet {
  Request request{};
  iovec part{&request, sizeof request};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr header{nullptr, 0, &part, 1, control, sizeof control, 0};
};

}  // namespace tessaloom::obedient
