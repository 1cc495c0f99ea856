#pragma once

#include <cstdint>
#include <expected>
#include <functional>
#include <optional>
#include <string>

namespace tessaloom {

/// A message body: the UTF-8 JSON text of one record.
using Bytes = std::string;

/// Why a call has no data, in the terms that each transport turns into its own error.
struct ReplyError {
  enum class Category : std::uint8_t {
    decoding,    ///< The request's body is not the record that the method expects.
    encoding,    ///< The result cannot be written, or is too large to send.
    generation,  ///< A generation failed; `kind` says how.
  };

  Category category;
  std::string domain;
  std::int64_t code;
  std::string localizedDescription;  ///< One bounded line of valid UTF-8.
  std::optional<std::string> kind;   ///< The name of a GenerationFailureKind, for generations only.

  friend bool operator==(const ReplyError&, const ReplyError&) = default;
};

/// Takes the one outcome of a call; called exactly once, on any thread.
using DataReply = std::function<void(std::expected<Bytes, ReplyError>)>;
using VersionReply = std::function<void(std::int64_t)>;

/// The service as an editor's connection sees it. A transport calls the methods of one connection
/// one after the other, on that connection's own serial queue; generateText and
/// generationEngineStatus return at once and reply later from another thread, the others reply
/// before they return.
class HelperServicing {
 public:
  virtual ~HelperServicing() = default;

  virtual void protocolVersion(VersionReply reply) = 0;
  virtual void listProcesses(DataReply reply) = 0;
  virtual void killProcess(Bytes request, DataReply reply) = 0;
  virtual void listListeningPorts(DataReply reply) = 0;
  virtual void helperCapabilities(DataReply reply) = 0;
  virtual void generateText(Bytes request, DataReply reply) = 0;
  virtual void cancelGeneration(Bytes request, DataReply reply) = 0;
  virtual void quitIfOutdated(DataReply reply) = 0;
  virtual void generationEngineStatus(Bytes request, DataReply reply) = 0;
};

}  // namespace tessaloom
