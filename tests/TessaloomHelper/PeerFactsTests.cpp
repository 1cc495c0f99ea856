#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "TLFoundation/Pipe.h"
#include "linux/KeyFile.h"
#include "linux/PeerFacts.h"
#include "linux/PeerRequirement.h"
#include "support/TemporaryDirectory.h"

namespace tessaloom {
namespace {

/// A child process that becomes something else and stops then; ended with this object.
class Child {
 public:
  explicit Child(const std::function<bool()>& become) : pid(::fork()) {
    if (pid == 0) {
      if (become()) ::raise(SIGSTOP);
      ::_exit(1);
    }
    int status = 0;
    ::waitpid(pid, &status, WUNTRACED);
    isReady = WIFSTOPPED(status);
    if (!isReady) pid = -1;  // Reaped.
  }
  ~Child() { end(); }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  void end() {
    if (pid <= 0) return;
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
  }

  pid_t pid = -1;
  bool isReady = false;
};

TEST(PeerFacts, ReportWhatAProcessRuns) {
  const TemporaryDirectory folder;
  EXPECT_FALSE(readPeerFacts(0, folder.path()));
  Child ended([] { return true; });
  ended.end();
  EXPECT_FALSE(readPeerFacts(std::exchange(ended.pid, -1), folder.path()));
  for (const char* name : {"program", "program (deleted)"}) {
    const std::string program = folder / name;
    std::filesystem::copy_file("/bin/sh", program);
    const Child child(
        [&] { return ::execl(program.c_str(), "sh", "-c", "kill -STOP $$", nullptr) == 0; });
    ASSERT_TRUE(child.isReady);
    if (name == std::string("program")) std::filesystem::remove(program);
    const PeerFacts facts = readPeerFacts(child.pid, folder.path()).value();
    EXPECT_TRUE(facts.sharesMountNamespace);
    EXPECT_EQ(facts.executable, program);
  }
}

/// The user's runtime directory as Flatpak keeps it, with three instances in it.
class FlatpakPeer : public testing::Test {
 protected:
  FlatpakPeer() {
    for (const char* id : {"a", "16", "b", "17", "18", "c", "d"}) {
      std::filesystem::create_directories(instances / id);
      std::ofstream(instances / id / ".ref");
      describe(id, id);
    }
  }

  void describe(const char* instance, const char* id) const {
    std::ofstream(instances / instance / "info")
        << "[Application]\nname=org.example." << instance << "\n[Instance]\ninstance-id=" << id;
  }

  /// Into a sandbox of its own; of the pipe it keeps the ends with these indices.
  bool enterSandbox(bool keepsReading, bool keepsWriting) const {
    if (!keepsReading) ::close(pipe.readEnd.get());
    if (!keepsWriting) ::close(pipe.writeEnd.get());
    return ::unshare(CLONE_NEWNS) == 0 || ::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0;
  }

  bool lock(const char* id) const {
    const int file = ::open((instances / id / ".ref").c_str(), O_RDONLY);
    struct flock lock{};
    lock.l_type = F_RDLCK;
    return ::fcntl(file, F_SETLK, &lock) == 0;
  }

  std::string applicationOf(const Child& peer) const {
    const auto facts = readPeerFacts(peer.pid, runtime.path());
    return facts ? facts->flatpakApplication : "not readable";
  }

  TemporaryDirectory runtime;
  std::filesystem::path instances = runtime.path() / ".flatpak";
  const FileDescriptor noPipe{::open("/dev/null", O_RDONLY)};
  Pipe pipe = makePipe().value();
};

TEST_F(FlatpakPeer, BelongsToAnInstanceByWhatOnlyTheHostCanWrite) {
  const std::string editor = "org.example.17";
  Child first([&] { return enterSandbox(true, false) && lock("17"); });
  if (!first.isReady) GTEST_SKIP() << "no user namespaces here";
  const Child others([&] { return enterSandbox(false, false) && lock("16") && lock("18"); });
  const Child proxy([&] { return enterSandbox(false, true); });
  EXPECT_EQ(applicationOf(first), editor);
  EXPECT_EQ(applicationOf(proxy), editor);
  EXPECT_NE(applicationOf(others), "");

  // What another sandbox has at its root says nothing, nor does a pipe's same end.
  const TemporaryDirectory root;
  std::filesystem::copy_file(instances / "17/info", root / ".flatpak-info");
  const Child impostor([&] {
    return enterSandbox(true, false) && ::open("/dev/null", O_WRONLY) > 0 &&
           ::chroot(root.path().c_str()) == 0;
  });
  EXPECT_EQ(applicationOf(impostor), "");

  describe("17", "18");
  EXPECT_EQ(applicationOf(proxy), "");
  describe("17", "17");
  std::ofstream(instances / "17/info", std::ios::app).put('\n');
  for (const auto size : {65'536U, 65'537U}) {
    std::filesystem::resize_file(instances / "17/info", size);
    EXPECT_EQ(applicationOf(proxy), size == 65'536U ? editor : "");
  }
  describe("17", "17");
  std::filesystem::permissions(instances / "17", std::filesystem::perms(0777));
  EXPECT_EQ(applicationOf(proxy), "");
  std::filesystem::permissions(instances / "17", std::filesystem::perms(0755));
  std::filesystem::rename(instances / "17", instances / editor);
  EXPECT_EQ(applicationOf(proxy), "");
  std::filesystem::rename(instances / editor, instances / "17");
  EXPECT_EQ(applicationOf(proxy), editor);
  first.end();
  first.pid = -1;
  EXPECT_EQ(applicationOf(proxy), "");  // Only a directory was left behind.
  std::filesystem::rename(instances, runtime / "moved");
  EXPECT_EQ(applicationOf(proxy), "");
  std::ofstream(instances).put('x');
  EXPECT_EQ(applicationOf(proxy), "not readable");
}

TEST(KeyFile, HasAValueOnlyWhenNoReaderCouldFindAnother) {
  const std::pair<const char*, std::optional<std::string>> rows[] = {
      {"[Context]\nname=c\n[Application]\r\n#name=b\nother=c\n name = a=b \r\n[Other]\nname=d",
       "a=b"},
      {"[Runtime]\nname=a\n", std::nullopt},
      {"name=a\n[Application]\n", std::nullopt},
      {"[Application]\nname=a\nname=b\n", std::nullopt},
      {"[ Application ]\nname=a\n", std::nullopt},
      {"[Application\nname=a\n", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& [text, name] : rows) {
    EXPECT_EQ(keyFileValue(text, "Application", "name"), name) << text;
  }
}

TEST(PeerRequirement, AdmitsTheEditorAndTheClientOnly) {
  const std::string editor = "com.brindlemoor.Tessaloom";
  const PeerRequirement requirement(1000, "/opt/t/libexec/tessaloom-helper");
  const auto native = [&](const std::string& executable) {
    return PeerFacts{true, executable, editor};
  };
  const auto sandboxed = [](const std::string& application) {
    return PeerFacts{false, "/opt/t/libexec/tessaloom", application};
  };
  for (const PeerFacts& peer : {native("/opt/t/libexec/tessaloom"), sandboxed(editor),
                                native("/opt/t/libexec/tessaloom-helperctl")}) {
    EXPECT_TRUE(requirement.admits(peer)) << peer.executable;
  }
  for (const PeerFacts& peer :
       {native("/opt/t/libexec/tessaloom-helper"), native("/opt/t/libexec/x/tessaloom"),
        native("/opt/t/libexec2/tessaloom"), native("/opt/t/libexec/tessaloom2"), native(""),
        sandboxed(""), sandboxed(editor + ".Other"), sandboxed("com.brindlemoor.tessaloom")}) {
    EXPECT_FALSE(requirement.admits(peer)) << peer.executable << " of " << peer.flatpakApplication;
  }
  EXPECT_TRUE(PeerRequirement(0, "/tessaloom-helper").admits(native("/tessaloom")));
  EXPECT_FALSE(PeerRequirement(0, "").admits(native("/tessaloom")));
}

}  // namespace
}  // namespace tessaloom
