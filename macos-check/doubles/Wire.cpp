#include "Wire.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

std::string withLength(const std::string& bytes) {
  const auto length = static_cast<std::uint32_t>(bytes.size());
  return std::string(reinterpret_cast<const char*>(&length), sizeof length) + bytes;
}

std::uint32_t lengthAt(const std::string& bytes, std::size_t at) {
  std::uint32_t length = 0;
  std::memcpy(&length, bytes.data() + at, sizeof length);
  return length;
}

std::optional<std::string> read(int descriptor, std::size_t count) {
  std::string bytes(count, '\0');
  for (std::size_t got = 0; got < count;) {
    const auto more = ::recv(descriptor, bytes.data() + got, count - got, 0);
    if (more < 0 && errno == EINTR) continue;
    if (more <= 0) return std::nullopt;
    got += static_cast<std::size_t>(more);
  }
  return bytes;
}

}  // namespace

Wire::~Wire() {
  ::close(descriptor_);
}

int Wire::connect(const std::string& service) {
  const char* folder = std::getenv("DOUBLE_LAUNCHD");
  const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  const std::string path = std::string(folder != nullptr ? folder : "") + "/" + service;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  if (::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
    return descriptor;
  ::close(descriptor);
  return -1;
}

bool Wire::send(const Message& message) {
  std::string parts;
  for (const auto& part : message) parts += withLength(part);
  const std::string bytes = withLength(parts);
  const std::lock_guard locked(lock_);
  for (std::size_t sent = 0; sent < bytes.size();) {
    const auto more = ::send(descriptor_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (more < 0 && errno == EINTR) continue;
    if (more <= 0) return false;
    sent += static_cast<std::size_t>(more);
  }
  return true;
}

std::optional<Wire::Message> Wire::receive() {
  const auto length = read(descriptor_, sizeof(std::uint32_t));
  const auto parts = length ? read(descriptor_, lengthAt(*length, 0)) : std::nullopt;
  if (!parts) return std::nullopt;
  Message message;
  for (std::size_t at = 0; at < parts->size(); at += sizeof(std::uint32_t) + message.back().size())
    message.push_back(parts->substr(at + sizeof(std::uint32_t), lengthAt(*parts, at)));
  return message;
}

void Wire::end() {
  ::shutdown(descriptor_, SHUT_RDWR);
}

pid_t Wire::peer() const {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  return ::getsockopt(descriptor_, SOL_SOCKET, SO_PEERCRED, &credentials, &size) == 0
             ? credentials.pid
             : -1;
}

void logLine(const std::string& line) {
  const char* path = std::getenv("DOUBLE_LOG");
  if (path == nullptr) return;
  const int file = ::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  const std::string text = line + '\n';
  (void)!::write(file, text.data(), text.size());
  ::close(file);
}
