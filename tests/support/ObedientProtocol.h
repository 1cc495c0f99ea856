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
  greet,
  keep,            ///< Keeps the descriptor that comes with the request; tells its number.
  giveUp,          ///< Closes descriptor `first` after sending it along.
  close,           ///< `first`.
  duplicate,       ///< `first`; tells the new number.
  duplicateOnto,   ///< `first` onto `second`.
  setName,         ///< `text`.
  hideFromOthers,  ///< Stops being dumpable.
  becomeUser,      ///< `first`.
  takeTerminal,    ///< Leads a session whose terminal is `text`.
  startThread,     ///< One that sleeps.
  forkTwin,        ///< Tells its pid; it ends with its parent.
  forkHeir,        ///< Tells its pid; it outlives its parent, for a minute at most.
  forkZombie,      ///< Tells its pid; it is never reaped.
  execAgain,       ///< Executes the same program; the answer comes from the new one.
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

template <class Message>
bool sendMessage(int socket, const Message& message, int descriptor) {
  Message copy = message;
  iovec part{&copy, sizeof copy};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof descriptor)] = {};
  msghdr header{};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  if (descriptor >= 0) {
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    cmsghdr* attachment = CMSG_FIRSTHDR(&header);
    attachment->cmsg_level = SOL_SOCKET;
    attachment->cmsg_type = SCM_RIGHTS;
    attachment->cmsg_len = CMSG_LEN(sizeof descriptor);
    std::memcpy(CMSG_DATA(attachment), &descriptor, sizeof descriptor);
  }
  return sendmsg(socket, &header, MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof copy);
}

/// False when the other end is closed. `descriptor` is -1 unless one came along.
template <class Message>
bool receiveMessage(int socket, Message& message, int& descriptor) {
  descriptor = -1;
  iovec part{&message, sizeof message};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof descriptor)] = {};
  msghdr header{};
  header.msg_iov = &part;
  header.msg_iovlen = 1;
  header.msg_control = control;
  header.msg_controllen = sizeof control;
  // Not close-on-exec: what a process keeps outlives its execution of another program.
  if (recvmsg(socket, &header, 0) != static_cast<ssize_t>(sizeof message)) return false;
  const cmsghdr* attachment = CMSG_FIRSTHDR(&header);
  if (attachment != nullptr && attachment->cmsg_type == SCM_RIGHTS) {
    std::memcpy(&descriptor, CMSG_DATA(attachment), sizeof descriptor);
  }
  return true;
}

}  // namespace tessaloom::obedient
