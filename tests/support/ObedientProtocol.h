#pragma once

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <cstdint>
#include <cstring>

/// What an obedient process and its parent say to each other: packets of a fixed size, each with
/// at most one descriptor.
namespace tessaloom::obedient {

inline constexpr int channel = 0;

enum class Command : std::int32_t {
  keep,              ///< Keeps the descriptor that comes with the request; tells its number.
  show,              ///< Sends descriptor `first` along.
  close,             ///< `first`.
  duplicate,         ///< `first`; tells the new number.
  duplicateOnto,     ///< `first` onto `second`.
  setName,           ///< `text`.
  hideFromOthers,    ///< Stops being dumpable.
  becomeUser,        ///< `first`.
  takeTerminal,      ///< Leads a session whose terminal is `text`.
  startThread,       ///< One that sleeps.
  leaveMainThread,   ///< Answers from another thread; the main thread exits.
  startThreadApart,  ///< One with descriptors, and where allowed a network, of its own, that
                     ///< listens; returns the port.
  forkTwin,          ///< Tells its pid; it ends with its parent.
  forkHeir,          ///< Tells its pid; it outlives its parent, for a minute at most.
  forkSharing,       ///< With the same table of descriptors, of which it closes `first` at SIGUSR1.
  forkZombie,        ///< Tells its pid; it has exited and is never reaped.
  enterNetwork,      ///< A network namespace of its own; -1 where that is not allowed.
  churnSockets,      ///< Binds the UDP ports from 10,000 on, `first` of them, that stay; as many
                     ///< from 20,000 on come and go from then on.
  listen,            ///< On a port of the kernel's choice; returns the descriptor.
  execAgain,         ///< Executes the same program; the answer comes from the new one.
};

struct Request {
  Command command;
  std::int32_t first = 0;
  std::int32_t second = 0;
  char text[64] = {};
};

struct Reply {
  std::int32_t result;
};

/// A message as sendmsg(2) and recvmsg(2) take it, with room for one descriptor.
template <class Message>
struct Packet {
  Message message{};
  iovec part{&message, sizeof message};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr header{nullptr, 0, &part, 1, control, sizeof control, 0};
};

template <class Message>
bool sendMessage(int socket, const Message& message, int descriptor) {
  Packet<Message> packet{message};
  cmsghdr* attachment = CMSG_FIRSTHDR(&packet.header);
  attachment->cmsg_level = SOL_SOCKET;
  attachment->cmsg_type = SCM_RIGHTS;
  attachment->cmsg_len = CMSG_LEN(sizeof descriptor);
  std::memcpy(CMSG_DATA(attachment), &descriptor, sizeof descriptor);
  if (descriptor < 0) packet.header.msg_controllen = 0;
  return sendmsg(socket, &packet.header, MSG_NOSIGNAL) == sizeof message;
}

/// False when the other end is closed. `descriptor` is -1 unless one came along.
template <class Message>
bool receiveMessage(int socket, Message& message, int& descriptor) {
  Packet<Message> packet;
  // Not close-on-exec: what a process keeps outlives its execution of another program.
  if (recvmsg(socket, &packet.header, 0) != sizeof message) return false;
  message = packet.message;
  descriptor = -1;
  const cmsghdr* attachment = CMSG_FIRSTHDR(&packet.header);
  if (attachment != nullptr) std::memcpy(&descriptor, CMSG_DATA(attachment), sizeof descriptor);
  return true;
}

}  // namespace tessaloom::obedient
