#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <systemd/sd-bus.h>

namespace tessaloom {

/// What a call of the helper came to.
struct BusReply {
  std::string body;
  std::int64_t number = 0;  ///< Where the method returns one instead of a body.
  std::string errorName;    ///< Empty when the call succeeded.
  std::string message;
  std::map<std::string, std::string> details;  ///< Of an error's second argument, all as text.

  bool isError() const { return !errorName.empty(); }
};

/// One connection to a bus. For one thread at a time.
class BusClient {
 public:
  class Pending;

  explicit BusClient(const std::string& address);
  ~BusClient();
  BusClient(const BusClient&) = delete;
  BusClient& operator=(const BusClient&) = delete;

  /// A method without a body takes none; an empty body is not the same.
  std::shared_ptr<Pending> send(const char* method, std::optional<std::string_view> body = {});
  BusReply await(const std::shared_ptr<Pending>& pending);
  bool hasAnswer(const std::shared_ptr<Pending>& pending);
  BusReply call(const char* method, std::optional<std::string_view> body = {});

  /// Any method of any peer, with string arguments; the reply's first text or number.
  BusReply callOther(const char* destination, const char* path, const char* interface,
                     const char* method, const char* types = "", const char* argument = nullptr);

  /// The process that owns the helper's name, or 0.
  pid_t helperProcess();

  /// Owns a name and hands every call to `answer`.
  void serve(const char* name, std::function<int(sd_bus_message*)> answer);

  /// Handles what has arrived, without waiting.
  void process();

 private:
  sd_bus* bus_ = nullptr;
  std::function<int(sd_bus_message*)> answer_;
};

}  // namespace tessaloom
