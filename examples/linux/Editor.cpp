// What an editor does to use the helper on Linux: a complete program over GDBus.
//
//   tessaloom status                  which engines are there
//   tessaloom generate ENGINE PROMPT  generates text
//   tessaloom cancel ENGINE PROMPT    starts a generation and cancels it
//   tessaloom stop                    starts a program, finds it in the listing and ends it
//   tessaloom update                  what to do after the package has been updated
//
// It accepts a reply only if the helper or the bus sent it: see ReplyFilter.
//
// GDBus rather than sd-bus, because a sandboxed program reaches the session bus through Flatpak's
// proxy, and sd-bus clients do not get past the one of Debian 12. The helper admits the sandboxed
// application com.brindlemoor.Tessaloom, and outside a sandbox an executable of this program's name
// in the helper's own directory.

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <expected>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <gio/gio.h>
#include <nlohmann/json.hpp>

using nlohmann::json;

namespace {

constexpr const char* helperName = "group.com.brindlemoor.Tessaloom.helper";
constexpr const char* helperPath = "/com/brindlemoor/Tessaloom/Helper";
constexpr const char* helperInterface = "com.brindlemoor.Tessaloom.HelperServicing";
constexpr const char* busName = "org.freedesktop.DBus";
/// What the name of a generation's error begins with; the rest is the kind.
constexpr std::string_view generationError = "com.brindlemoor.Tessaloom.generation.";

constexpr int noLimit = G_MAXINT;    // Milliseconds; GDBus takes this value as "never".
constexpr int answersSoon = 30'000;  // For every method but GenerateText.
constexpr std::int64_t protocolVersion = 1;

/// A call that failed. `name` is the D-Bus error's; `kind` says why a generation failed.
struct Failure {
  std::string name;
  std::string message;
  std::string kind = {};
};

using Reply = std::expected<json, Failure>;
using WhenAnswered = std::function<void(Reply)>;

/// GDBus drops an error's description when it makes a GError of an error reply that has more than
/// one argument. That is why this program sends messages itself instead of
/// g_dbus_connection_call(). The second argument is a dictionary, which says nothing that the
/// error's name lacks.
Failure failureOf(GDBusMessage* reply) {
  Failure failure{g_dbus_message_get_error_name(reply), ""};
  if (failure.name.starts_with(generationError)) {
    failure.kind = failure.name.substr(generationError.size());
  }
  GVariant* body = g_dbus_message_get_body(reply);
  if (body == nullptr || g_variant_n_children(body) == 0) return failure;
  g_autoptr(GVariant) text = g_variant_get_child_value(body, 0);
  if (g_variant_is_of_type(text, G_VARIANT_TYPE_STRING)) {
    failure.message = g_variant_get_string(text, nullptr);
  }
  return failure;
}

/// A reply is one integer (the protocol version) or the bytes of one JSON text.
Reply replyOf(GDBusMessage* message) {
  if (g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_ERROR) {
    return std::unexpected(failureOf(message));
  }
  GVariant* body = g_dbus_message_get_body(message);
  if (body != nullptr && g_variant_is_of_type(body, G_VARIANT_TYPE("(x)"))) {
    gint64 number = 0;
    g_variant_get(body, "(x)", &number);
    return json(number);
  }
  if (body != nullptr && g_variant_is_of_type(body, G_VARIANT_TYPE("(ay)"))) {
    g_autoptr(GVariant) bytes = g_variant_get_child_value(body, 0);
    gsize size = 0;
    const auto* data = static_cast<const char*>(g_variant_get_fixed_array(bytes, &size, 1));
    json record = json::parse(data, data + size, nullptr, false);
    if (!record.is_discarded()) return record;
  }
  return std::unexpected(Failure{"", "The helper's reply could not be read."});
}

/// A text of a record; the fallback where the field is left out.
std::string text(const json& record, const char* key, const char* fallback = "") {
  const auto field = record.find(key);
  const auto* value = field == record.end() ? nullptr : field->get_ptr<const json::string_t*>();
  return value == nullptr ? fallback : *value;
}

/// Drops replies that are not from who was called.
///
/// Every peer of a bus can send a reply to anybody's call, and the name's owner is announced by a
/// message that anybody can imitate. GDBus looks at the serial of a reply only, and takes the
/// first. But the bus writes the true sender into each message. So a reply to a call to the helper
/// has to come from the unique name that has owned the helper's name since the call (the bus says
/// which, and says so before that peer's reply), or be an error of the bus. A proxy between a
/// sandbox and the bus answers without a sender.
///
/// GDBus calls the filter on its own thread, for each message in the order in which it is sent or
/// received.
class ReplyFilter {
 public:
  static GDBusMessage* filter(GDBusConnection*, GDBusMessage* message, gboolean isIncoming,
                              gpointer self) {
    auto* replies = static_cast<ReplyFilter*>(self);
    const std::lock_guard locked(replies->lock_);
    if (!isIncoming) {
      replies->noteCall(message);
    } else if (!replies->isBelievable(message)) {
      g_object_unref(message);
      return nullptr;
    }
    return message;
  }

 private:
  void noteCall(GDBusMessage* call) {
    const guint32 serial = g_dbus_message_get_serial(call);
    if (g_strcmp0(g_dbus_message_get_destination(call), helperName) == 0) {
      calls_[serial] = owners_.empty() ? 0 : owners_.size() - 1;
    } else if (isAboutOwner(call, "GetNameOwner")) {
      ownerQuestions_.insert(serial);
    } else {
      otherQuestions_.insert(serial);
    }
  }

  bool isBelievable(GDBusMessage* message) {
    const GDBusMessageType type = g_dbus_message_get_message_type(message);
    const char* sender = g_dbus_message_get_sender(message);
    const bool isFromBus = sender == nullptr || g_strcmp0(sender, busName) == 0;
    if (type == G_DBUS_MESSAGE_TYPE_SIGNAL && isAboutOwner(message, "NameOwnerChanged")) {
      if (isFromBus) learnOwner(message, "(&s&s&s)");
      return isFromBus;
    }
    if (type != G_DBUS_MESSAGE_TYPE_METHOD_RETURN && type != G_DBUS_MESSAGE_TYPE_ERROR) return true;
    const guint32 serial = g_dbus_message_get_reply_serial(message);
    if (ownerQuestions_.contains(serial)) {
      if (!isFromBus) return false;
      ownerQuestions_.erase(serial);
      if (type == G_DBUS_MESSAGE_TYPE_METHOD_RETURN) learnOwner(message, "(&s)");
    } else if (const auto call = calls_.find(serial); call != calls_.end()) {
      const bool isFromHelper =
          sender != nullptr &&
          std::find(owners_.begin() + static_cast<std::ptrdiff_t>(call->second), owners_.end(),
                    sender) != owners_.end();
      if (!isFromHelper && !(isFromBus && type == G_DBUS_MESSAGE_TYPE_ERROR)) return false;
      calls_.erase(call);
    } else {
      // Also a forgery of the reply to a call that is not sent yet: GDBus takes it from the moment
      // at which the call gets its serial, before this filter has seen the call.
      return isFromBus && otherQuestions_.erase(serial) != 0;
    }
    return true;
  }

  static bool isAboutOwner(GDBusMessage* message, const char* member) {
    return g_strcmp0(g_dbus_message_get_interface(message), busName) == 0 &&
           g_strcmp0(g_dbus_message_get_member(message), member) == 0 &&
           g_strcmp0(g_dbus_message_get_arg0(message), helperName) == 0;
  }

  /// The last text of the body is the owner; empty when the name has none.
  void learnOwner(GDBusMessage* message, const char* format) {
    GVariant* body = g_dbus_message_get_body(message);
    if (body == nullptr || !g_variant_check_format_string(body, format, FALSE)) return;
    g_autoptr(GVariant) owner = g_variant_get_child_value(body, g_variant_n_children(body) - 1);
    owners_.emplace_back(g_variant_get_string(owner, nullptr));
  }

  std::mutex lock_;
  std::vector<std::string> owners_;       ///< The helper's unique names so far.
  std::map<guint32, std::size_t> calls_;  ///< By serial: the first owner that can answer.
  std::set<guint32> ownerQuestions_;      ///< Serials.
  std::set<guint32> otherQuestions_;      ///< Of other calls, all of which are to the bus.
};

/// The editor's end of the connection. One for the whole program: the helper signals only processes
/// that the same connection has listed.
class Helper {
 public:
  explicit Helper(GDBusConnection* bus) : bus_(bus) {
    g_dbus_connection_set_exit_on_close(bus_, FALSE);  // A lost bus is not the editor's end.
    filter_ = g_dbus_connection_add_filter(
        bus_, &ReplyFilter::filter, new ReplyFilter,
        [](gpointer replies) { delete static_cast<ReplyFilter*>(replies); });
    // Before the first call, so that the bus reports the owner before the owner replies.
    watch_ = g_bus_watch_name_on_connection(bus_, helperName, G_BUS_NAME_WATCHER_FLAGS_NONE,
                                            &Helper::appeared, &Helper::vanished, this, nullptr);
  }
  ~Helper() {
    g_bus_unwatch_name(watch_);
    g_dbus_connection_remove_filter(bus_, filter_);
    g_object_unref(bus_);
  }
  Helper(const Helper&) = delete;
  Helper& operator=(const Helper&) = delete;

  /// Calls without waiting; the main loop delivers the reply. The first call starts the helper.
  void call(const char* method, const std::optional<json>& request, int timeout,
            WhenAnswered whenAnswered) {
    g_autoptr(GDBusMessage) message =
        g_dbus_message_new_method_call(helperName, helperPath, helperInterface, method);
    if (request) {
      const std::string body = request->dump();
      GVariant* bytes = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, body.data(), body.size(), 1);
      g_dbus_message_set_body(message, g_variant_new_tuple(&bytes, 1));
    }
    g_dbus_connection_send_message_with_reply(bus_, message, G_DBUS_SEND_MESSAGE_FLAGS_NONE,
                                              timeout, nullptr, nullptr, &Helper::answered,
                                              new WhenAnswered(std::move(whenAnswered)));
  }

  /// Calls and runs the main loop until the reply is there. An editor would go on with its work.
  Reply ask(const char* method, const std::optional<json>& request = std::nullopt) {
    std::optional<Reply> reply;
    call(method, request, answersSoon, [&reply](Reply answer) { reply = std::move(answer); });
    runUntil([&reply] { return reply.has_value(); });
    return *std::move(reply);
  }

  template <class Condition>
  static void runUntil(Condition isMet) {
    while (!isMet()) g_main_context_iteration(nullptr, TRUE);
  }

  static void pause(guint milliseconds) {
    bool isOver = false;
    g_timeout_add_once(
        milliseconds, [](gpointer over) { *static_cast<bool*>(over) = true; }, &isOver);
    runUntil([&isOver] { return isOver; });
  }

  bool isRunning() const { return !owner_.empty(); }
  /// The unique bus name of the running helper: another one means another process.
  const std::string& owner() const { return owner_; }

 private:
  static void answered(GObject* bus, GAsyncResult* result, gpointer data) {
    const std::unique_ptr<WhenAnswered> whenAnswered(static_cast<WhenAnswered*>(data));
    GError* error = nullptr;
    g_autoptr(GDBusMessage) reply =
        g_dbus_connection_send_message_with_reply_finish(G_DBUS_CONNECTION(bus), result, &error);
    if (reply != nullptr) {
      (*whenAnswered)(replyOf(reply));
      return;
    }
    // No reply at all: the time limit passed, or the bus is gone.
    (*whenAnswered)(std::unexpected(Failure{"", error->message}));
    g_error_free(error);
  }

  static void appeared(GDBusConnection*, const char*, const char* owner, gpointer self) {
    static_cast<Helper*>(self)->owner_ = owner;
  }

  /// The helper gave its name up. Calls that it has received are still answered, so nothing fails
  /// here; but what was listed is forgotten, and a new helper has to list before it signals.
  static void vanished(GDBusConnection*, const char*, gpointer self) {
    auto* helper = static_cast<Helper*>(self);
    if (helper->isRunning()) std::puts("The helper has exited.");
    helper->owner_.clear();
  }

  GDBusConnection* bus_;
  guint filter_ = 0;
  guint watch_ = 0;
  std::string owner_;
};

int complain(const Failure& failure) {
  if (failure.kind == "notAuthenticated") {
    std::fprintf(stderr, "Sign in to the engine first: %s\n", failure.message.c_str());
  } else if (failure.name == "org.freedesktop.DBus.Error.ServiceUnknown") {
    const bool isSandboxed = access("/.flatpak-info", F_OK) == 0;
    std::fprintf(stderr,
                 isSandboxed ? "The helper is not installed, or the sandbox lacks "
                               "--talk-name=%s.\n"
                             : "The helper (%s) is not installed.\n",
                 helperName);
  } else if (failure.name == "org.freedesktop.DBus.Error.AccessDenied") {
    std::fprintf(stderr, "The helper does not accept this program: %s\n", failure.message.c_str());
  } else {
    const std::string& what = failure.kind.empty() ? failure.name : failure.kind;
    std::fprintf(stderr, "%s: %s\n", what.c_str(), failure.message.c_str());
  }
  return 1;
}

json generationRequest(std::string_view engine, std::string_view prompt) {
  g_autofree char* random = g_uuid_string_random();
  g_autofree char* id = g_ascii_strup(random, -1);  // As the helper writes it.
  return {{"requestID", id},     {"engine", engine},
          {"shape", "freeText"}, {"instructions", "Be brief."},
          {"prompt", prompt},    {"timeout", 180}};
}

/// Before the first real call: whether this helper has the editor's protocol and can generate.
std::optional<Failure> checkHelper(Helper& helper) {
  const Reply version = helper.ask("ProtocolVersion");
  if (!version) return version.error();
  if (*version != protocolVersion) return Failure{"", "Another protocol version."};
  const Reply capabilities = helper.ask("HelperCapabilities");
  if (!capabilities) return capabilities.error();
  for (const json& name : (*capabilities)["names"]) {
    if (name == "textGeneration.v1") return std::nullopt;
  }
  return Failure{"", "This helper cannot generate text."};
}

int showStatus(Helper& helper) {
  for (const char* engine : {"claudeCode", "codex"}) {
    const Reply status = helper.ask("GenerationEngineStatus", json{{"engine", engine}});
    if (!status) return complain(status.error());
    const bool isFound = (*status)["binaryFound"];
    std::string version = text(*status, "version");  // Not every engine prints one.
    if (version.empty()) version = "unknown version";
    std::printf("%s: %s\n", engine, isFound ? version.c_str() : "not found");
  }
  return 0;
}

/// The request has its own timeout, which the helper keeps; a limit of the call's own would only
/// lose the reply. That is why this call alone has none.
int generate(Helper& helper, std::string_view engine, std::string_view prompt) {
  const json request = generationRequest(engine, prompt);
  std::optional<Reply> reply;
  helper.call("GenerateText", request, noLimit,
              [&reply](Reply answer) { reply = std::move(answer); });
  Helper::runUntil([&reply] { return reply.has_value(); });
  if (!*reply) return complain(reply->error());
  const json& result = **reply;
  if (text(result, "requestID") != text(request, "requestID")) {
    return complain({"", "The reply is about another generation."});
  }
  std::printf("%s\n", text(result, "text").c_str());
  if (result.contains("tokens")) {  // Not every engine counts them.
    std::printf("%lld tokens\n", result["tokens"]["output"].get<long long>());
  }
  return 0;
}

/// The answer to a cancelled generation is the generation's own: an error of the kind "cancelled".
/// The cancel call only says whether an engine was running at that moment. Until it has been
/// launched nothing can be signaled, so the call is repeated.
int cancel(Helper& helper, std::string_view engine, std::string_view prompt) {
  const json request = generationRequest(engine, prompt);
  std::optional<Reply> reply;
  helper.call("GenerateText", request, noLimit,
              [&reply](Reply answer) { reply = std::move(answer); });
  bool isSignaled = false;
  while (!reply && !isSignaled) {
    const Reply result = helper.ask("CancelGeneration", json{{"requestID", request["requestID"]}});
    if (!result) return complain(result.error());
    isSignaled = (*result)["succeeded"];
    if (!isSignaled) Helper::pause(50);
  }
  Helper::runUntil([&reply] { return reply.has_value(); });
  if (*reply) {
    std::puts("The engine had finished before it was cancelled.");
    return 0;
  }
  if (reply->error().kind != "cancelled") return complain(reply->error());
  std::puts("Cancelled.");
  return 0;
}

/// List and signal over the same connection, within 60 seconds. Process ids are the host's, also
/// for an editor in a sandbox.
int stopProgram(Helper& helper) {
  const char* words[] = {"sleep", "600", nullptr};
  g_autoptr(GError) error = nullptr;
  g_autoptr(GSubprocess) program =
      g_subprocess_newv(words, G_SUBPROCESS_FLAGS_STDOUT_SILENCE, &error);
  if (program == nullptr) return complain({"", error->message});
  const std::int64_t pid = g_ascii_strtoll(g_subprocess_get_identifier(program), nullptr, 10);

  const Reply listing = helper.ask("ListProcesses");
  if (!listing) return complain(listing.error());
  for (const json& process : *listing) {
    if (process["pid"] == pid) {
      std::printf("Found: %s\n", text(process, "command").c_str());
    }
  }
  const Reply result = helper.ask("KillProcess", json{{"pid", pid}, {"signal", 15}});
  if (!result) return complain(result.error());
  // A refusal is a reply like any other: it says in a sentence for the user why.
  if (!(*result)["succeeded"]) {
    return complain({"", text(*result, "message", "The process was not signaled.")});
  }
  g_subprocess_wait(program, nullptr, nullptr);
  std::puts("Stopped.");
  return 0;
}

/// A helper does not notice that it has been updated. An editor asks once after it starts, and
/// again when it learns of an update. The old process goes on until no engine is running; the
/// next call after it has exited starts the new one.
int afterUpdate(Helper& helper) {
  const std::string old = helper.owner();
  const Reply freshness = helper.ask("QuitIfOutdated");
  if (!freshness) return complain(freshness.error());
  if (!(*freshness)["willExit"]) {
    std::puts("The helper is up to date.");
    return 0;
  }
  // Another caller may have started the new one already.
  Helper::runUntil([&] { return helper.owner() != old; });
  const std::optional<Failure> failure = checkHelper(helper);
  if (failure) return complain(*failure);
  Helper::runUntil([&helper] { return helper.isRunning(); });
  std::puts(helper.owner() != old ? "The new helper is running."
                                  : "The old helper is still running.");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  GError* error = nullptr;
  GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error);
  if (bus == nullptr) {
    std::fprintf(stderr, "There is no session bus: %s\n", error->message);
    g_error_free(error);
    return 1;
  }
  Helper helper(bus);
  const std::string_view command = argc > 1 ? argv[1] : "";
  if (const std::optional<Failure> failure = checkHelper(helper)) return complain(*failure);
  if (command == "status") return showStatus(helper);
  if (command == "generate" && argc == 4) return generate(helper, argv[2], argv[3]);
  if (command == "cancel" && argc == 4) return cancel(helper, argv[2], argv[3]);
  if (command == "stop") return stopProgram(helper);
  if (command == "update") return afterUpdate(helper);
  std::fprintf(stderr, "usage: tessaloom status|generate|cancel|stop|update\n");
  return 2;
}
