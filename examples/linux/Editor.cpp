// What an editor does to use the helper on Linux: a complete program over GDBus.
//
//   tessaloom status                  which engines are there
//   tessaloom generate ENGINE PROMPT  generates text
//   tessaloom cancel ENGINE PROMPT    starts a generation and cancels it
//   tessaloom stop                    starts a program, finds it in the listing and ends it
//   tessaloom update                  what to do after the package was updated
//
// GDBus rather than sd-bus, because a sandboxed program reaches the session bus through Flatpak's
// proxy, and sd-bus clients do not get past the one of Debian 12. The helper admits the sandboxed
// application com.brindlemoor.Tessaloom, and outside a sandbox an executable of this program's name
// in the helper's own folder.

#include <cstdio>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <gio/gio.h>
#include <nlohmann/json.hpp>

using nlohmann::json;

namespace {

constexpr const char* helperName = "group.com.brindlemoor.Tessaloom.helper";
constexpr const char* helperPath = "/com/brindlemoor/Tessaloom/Helper";
constexpr const char* helperInterface = "com.brindlemoor.Tessaloom.HelperServicing";

constexpr int noLimit = G_MAXINT;    // Milliseconds; GDBus takes this value as "never".
constexpr int answersSoon = 30'000;  // For every method but GenerateText.
constexpr std::int64_t protocolVersion = 1;

/// A call that failed. `name` is the D-Bus error's; `kind` says why a generation failed.
struct Failure {
  std::string name;
  std::string message;
  std::string domain;
  std::int64_t code = 0;
  std::string kind;
};

using Reply = std::expected<json, Failure>;
using WhenAnswered = std::function<void(Reply)>;

/// The error's second argument is a dictionary that GDBus drops when it makes a GError of an error
/// reply. That is why this program sends messages itself instead of g_dbus_connection_call().
Failure failureOf(GDBusMessage* reply) {
  Failure failure{g_dbus_message_get_error_name(reply), "", "", 0, ""};
  GVariant* body = g_dbus_message_get_body(reply);
  if (body == nullptr) return failure;
  const gsize count = g_variant_n_children(body);
  if (count > 0) {
    g_autoptr(GVariant) text = g_variant_get_child_value(body, 0);
    if (g_variant_is_of_type(text, G_VARIANT_TYPE_STRING)) {
      failure.message = g_variant_get_string(text, nullptr);
    }
  }
  // Errors of the bus itself, such as AccessDenied, have no dictionary.
  if (count > 1) {
    g_autoptr(GVariant) details = g_variant_get_child_value(body, 1);
    if (g_variant_is_of_type(details, G_VARIANT_TYPE_VARDICT)) {
      const char* word = nullptr;
      if (g_variant_lookup(details, "domain", "&s", &word)) failure.domain = word;
      if (g_variant_lookup(details, "kind", "&s", &word)) failure.kind = word;
      g_variant_lookup(details, "code", "x", &failure.code);
    }
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
  return std::unexpected(Failure{"", "The helper's reply could not be read.", "", 0, ""});
}

/// A text of a record; the fallback where the field is left out.
std::string text(const json& record, const char* key, const char* fallback = "") {
  const auto field = record.find(key);
  const auto* value = field == record.end() ? nullptr : field->get_ptr<const json::string_t*>();
  return value == nullptr ? fallback : *value;
}

/// The editor's end of the connection. One for the whole program: the helper signals only processes
/// that the same connection has listed.
class Helper {
 public:
  explicit Helper(GDBusConnection* bus) : bus_(bus) {
    g_dbus_connection_set_exit_on_close(bus_, FALSE);  // A lost bus is not the editor's end.
    watch_ = g_bus_watch_name_on_connection(bus_, helperName, G_BUS_NAME_WATCHER_FLAGS_NONE,
                                            &Helper::appeared, &Helper::vanished, this, nullptr);
  }
  ~Helper() {
    g_bus_unwatch_name(watch_);
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
    (*whenAnswered)(std::unexpected(Failure{"", error->message, "", 0, ""}));
    g_error_free(error);
  }

  static void appeared(GDBusConnection*, const char*, const char* owner, gpointer self) {
    static_cast<Helper*>(self)->owner_ = owner;
  }

  /// The helper gave its name up. Calls that it has received are still answered, so nothing fails
  /// here; but what was listed is forgotten, and a new helper has to list before it signals.
  static void vanished(GDBusConnection*, const char*, gpointer self) {
    auto* helper = static_cast<Helper*>(self);
    if (helper->isRunning()) std::puts("The helper has left.");
    helper->owner_.clear();
  }

  GDBusConnection* bus_;
  guint watch_ = 0;
  std::string owner_;
};

int complain(const Failure& failure) {
  if (failure.kind == "notAuthenticated") {
    std::fprintf(stderr, "Sign in to the engine first: %s\n", failure.message.c_str());
  } else if (failure.name == "org.freedesktop.DBus.Error.ServiceUnknown") {
    std::fprintf(stderr, "The helper is not installed.\n");
  } else if (failure.name == "org.freedesktop.DBus.Error.AccessDenied") {
    std::fprintf(stderr, "The helper does not admit this program: %s\n", failure.message.c_str());
  } else {
    const std::string& what = failure.kind.empty() ? failure.name : failure.kind;
    std::fprintf(stderr, "%s: %s\n", what.c_str(), failure.message.c_str());
  }
  return 1;
}

json generationRequest(std::string_view engine, std::string_view prompt) {
  g_autofree char* id = g_uuid_string_random();
  return {{"requestID", id},     {"engine", engine},
          {"shape", "freeText"}, {"instructions", "Be brief."},
          {"prompt", prompt},    {"timeout", 180}};
}

/// Before the first real call: whether this helper speaks the editor's protocol and can generate.
std::optional<Failure> checkHelper(Helper& helper) {
  const Reply version = helper.ask("ProtocolVersion");
  if (!version) return version.error();
  if (*version != protocolVersion) return Failure{"", "Another protocol version.", "", 0, ""};
  const Reply capabilities = helper.ask("HelperCapabilities");
  if (!capabilities) return capabilities.error();
  for (const json& name : (*capabilities)["names"]) {
    if (name == "textGeneration.v1") return std::nullopt;
  }
  return Failure{"", "This helper cannot generate text.", "", 0, ""};
}

int showStatus(Helper& helper) {
  for (const char* engine : {"claudeCode", "codex"}) {
    const Reply status = helper.ask("GenerationEngineStatus", json{{"engine", engine}});
    if (!status) return complain(status.error());
    const bool isFound = (*status)["binaryFound"];
    const std::string version = text(*status, "version", "unknown version");
    std::printf("%s: %s\n", engine, isFound ? version.c_str() : "not found");
  }
  return 0;
}

/// The request has its own timeout, which the helper keeps; a limit of the call's own would only
/// lose the reply. That is why this call alone has none.
int generate(Helper& helper, std::string_view engine, std::string_view prompt) {
  std::optional<Reply> reply;
  helper.call("GenerateText", generationRequest(engine, prompt), noLimit,
              [&reply](Reply answer) { reply = std::move(answer); });
  Helper::runUntil([&reply] { return reply.has_value(); });
  if (!*reply) return complain(reply->error());
  const json& result = **reply;
  std::printf("%s\n", text(result, "text").c_str());
  if (result.contains("tokens")) {  // Not every engine counts them.
    std::printf("%lld tokens\n", result["tokens"]["output"].get<long long>());
  }
  return 0;
}

/// The answer to a cancelled generation is the generation's own: an error of the kind "cancelled".
/// The cancel call only says whether an engine was running at that moment. Until it was launched
/// nothing can be signalled, so the call is repeated.
int cancel(Helper& helper, std::string_view engine, std::string_view prompt) {
  const json request = generationRequest(engine, prompt);
  std::optional<Reply> reply;
  helper.call("GenerateText", request, noLimit,
              [&reply](Reply answer) { reply = std::move(answer); });
  bool isSignalled = false;
  while (!reply && !isSignalled) {
    const Reply result = helper.ask("CancelGeneration", json{{"requestID", request["requestID"]}});
    if (!result) return complain(result.error());
    isSignalled = (*result)["succeeded"];
    if (!isSignalled) Helper::pause(50);
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
  if (program == nullptr) return complain({"", error->message, "", 0, ""});
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
    return complain({"", text(*result, "message", "The process was not signalled."), "", 0, ""});
  }
  g_subprocess_wait(program, nullptr, nullptr);
  std::puts("Stopped.");
  return 0;
}

/// A helper does not notice by itself that it was updated. An editor asks once after it starts, and
/// again when it learns of an update. The old process goes on until no generation runs; the next
/// call after it has left starts the new one.
int afterUpdate(Helper& helper) {
  const std::string old = helper.owner();
  const Reply freshness = helper.ask("QuitIfOutdated");
  if (!freshness) return complain(freshness.error());
  if (!(*freshness)["willExit"]) {
    std::puts("The helper is up to date.");
    return 0;
  }
  Helper::runUntil([&helper] { return !helper.isRunning(); });
  const std::optional<Failure> failure = checkHelper(helper);
  if (failure) return complain(*failure);
  Helper::runUntil([&helper] { return helper.isRunning(); });
  std::puts(helper.owner() != old ? "The new helper runs." : "The old helper still runs.");
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
