// Every method as a client on the bus sees it: answers, errors, refusals, bounds.

#include "e2e/EndToEnd.h"

namespace tessaloom {
namespace {

using nlohmann::json;

class Service : public EndToEnd {};

TEST_F(Service, AnswersWhatItIs) {
  EXPECT_EQ(client.call("ProtocolVersion").number, 1);
  EXPECT_EQ(client.call("HelperCapabilities").body,
            R"({"names":["textGeneration.v1"],"helperVersion":")" TESSALOOM_VERSION "\"}");
  EXPECT_EQ(client.call("QuitIfOutdated").body, R"({"isOutdated":false,"willExit":false})");
  EXPECT_FALSE(cancel({}));
}

TEST_F(Service, TellsWhichEnginesThereAre) {
  std::filesystem::remove(bus.home() / ".local/bin/codex");
  EXPECT_EQ(client.call("GenerationEngineStatus", R"({"engine":"codex"})").body,
            R"({"engine":"codex","binaryFound":false})");
  EXPECT_TRUE(client.call("GenerationEngineStatus", R"({"engine":"claudeCode"})")
                  .body.starts_with(R"({"engine":"claudeCode","binaryFound":true,"version":"2.)"));
}

TEST_F(Service, GeneratesEachShapeWithEachEngine) {
  for (const char* engine : {"claudeCode", "codex"}) {
    for (const char* shape : {"freeText", "itemFields"}) {
      const Request request{.prompt = "Name a colour", .engine = engine, .shape = shape};
      const BusReply reply = client.call("GenerateText", request.body());
      ASSERT_FALSE(reply.isError()) << reply.message;
      const json result = json::parse(reply.body);
      EXPECT_EQ(result["requestID"], request.id);
      EXPECT_EQ(result["engine"], engine);
      EXPECT_EQ(result.contains("fields"), std::string(shape) == "itemFields");
      EXPECT_NE(result["text"].get<std::string>().find("Name a colour"), std::string::npos);
      EXPECT_TRUE(result.contains("tokens"));
      EXPECT_LT(result["durationMilliseconds"].get<unsigned>(), 60'000U);
      EXPECT_FALSE(hasDirectory(request));
    }
  }
}

TEST_F(Service, AnswersEachWrongCallWithItsError) {
  const std::string helper = "com.brindlemoor.Tessaloom.helper";
  const std::string generation = "com.brindlemoor.Tessaloom.generation";
  const auto generate = [](const std::string& words) {
    return Request{.prompt = "Fail practice:" + words}.body();
  };
  const struct {
    const char* method;
    std::optional<std::string> body;
    std::string name;
    std::string message;  // Part of it.
    std::string code;
    std::string kind;
  } rows[] = {
      {"GenerateText", R"({"instructions":"","prompt":7})", helper + ".DecodingError", "prompt",
       "2", ""},
      {"GenerateText", Request{.timeout = 4}.body(), helper + ".DecodingError", "4", "102", ""},
      {"GenerationEngineStatus", R"({"engine":"other"})", helper + ".DecodingError", "engine", "1",
       ""},
      {"CancelGeneration", std::string(100'000, '['), helper + ".DecodingError", "", "1", ""},
      {"GenerateText", generate("not-signed-in"), generation + ".nonZeroExit", "", "1",
       "nonZeroExit"},
      {"GenerateText", generate("garbage"), generation + ".malformedOutput", "", "1",
       "malformedOutput"},
      {"ProtocolVersion", "{}", "org.freedesktop.DBus.Error.InvalidArgs", "", "", ""},
      {"GenerateText", std::nullopt, "org.freedesktop.DBus.Error.InvalidArgs", "", "", ""},
      {"Generate", "{}", "org.freedesktop.DBus.Error.UnknownMethod", "", "", ""},
  };
  for (const auto& row : rows) {
    const BusReply reply = client.call(row.method, row.body);
    EXPECT_EQ(reply.errorName, row.name) << row.method << ": " << reply.message;
    EXPECT_NE(reply.message.find(row.message), std::string::npos) << reply.message;
    std::map<std::string, std::string> details;
    if (!row.code.empty()) details["code"] = row.code;
    if (!row.code.empty()) details["domain"] = row.kind.empty() ? helper : generation;
    if (!row.kind.empty()) details["kind"] = row.kind;
    EXPECT_EQ(reply.details, details) << row.method << ": " << reply.message;
  }
}

TEST_F(Service, DescribesItself) {
  const char* peer[] = {"group.com.brindlemoor.Tessaloom.helper",
                        "/com/brindlemoor/Tessaloom/Helper"};
  const std::string text =
      client.callOther(peer[0], peer[1], "org.freedesktop.DBus.Introspectable", "Introspect").body;
  EXPECT_NE(text.find(R"(<method name="GenerateText">)"), std::string::npos);
}

TEST_F(Service, RefusesAPeerThatIsNotInstalledBesideIt) {
  const std::string name = "org.freedesktop.DBus.Error.AccessDenied";
  std::filesystem::copy_file(TESSALOOM_HELPERCTL, bus.path("tessaloom-helperctl"));
  std::ofstream(bus.path("lines")) << "ProtocolVersion\nNoSuchMethod\nHelperCapabilities\n";
  const auto session = [&](const std::filesystem::path& program, const std::string& output) {
    Child child({"/bin/sh", "-c", program.string() + " session < " + bus.path("lines").string()},
                {"DBUS_SESSION_BUS_ADDRESS=" + bus.address()}, bus.path(output));
    child.wait();
    return textOf(bus.path(output));
  };
  const std::string elsewhere = session(bus.path("tessaloom-helperctl"), "refused");
  for (const char* line : {"1 error ", "2 error ", "3 error "}) {
    EXPECT_NE(elsewhere.find(line + name), std::string::npos) << elsewhere;
  }
  const std::string beside =
      session(bus.helper().parent_path() / "tessaloom-helperctl", "admitted");
  EXPECT_NE(beside.find("1 ok 1"), std::string::npos) << beside;
}

TEST_F(Service, BoundsWhatOneCallerHasWaitingAndStillCancels) {
  std::ofstream(bus.home() / ".practice-version") << "practice:wait-for=" + bus.path("go").string();
  std::vector<std::shared_ptr<BusClient::Pending>> probes;
  for (int i = 0; i < 40; ++i) {
    probes.push_back(client.send("GenerationEngineStatus", R"({"engine":"codex"})"));
  }
  EXPECT_FALSE(cancel({}));
  createFile("go");
  std::size_t refused = 0;
  for (const auto& probe : probes) {
    const BusReply reply = client.await(probe);
    if (!reply.isError()) continue;
    EXPECT_EQ(reply.errorName, "org.freedesktop.DBus.Error.LimitsExceeded");
    ++refused;
  }
  EXPECT_EQ(refused, 24U);
  EXPECT_EQ(client.call("GenerateText", std::string(17 << 20, ' ')).errorName,
            "org.freedesktop.DBus.Error.LimitsExceeded");
}

TEST_F(Service, AnswersEveryCallOfAFlood) {
  std::vector<std::shared_ptr<BusClient::Pending>> flood;
  for (int i = 0; i < 10'000; ++i) flood.push_back(client.send("HelperCapabilities"));
  for (const auto& call : flood) {
    const std::string error = client.await(call).errorName;
    ASSERT_TRUE(error.empty() || error == "org.freedesktop.DBus.Error.LimitsExceeded") << error;
  }
  EXPECT_FALSE(client.call("HelperCapabilities").isError());
}

}  // namespace
}  // namespace tessaloom
