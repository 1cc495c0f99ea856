#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>

#include <gtest/gtest.h>

#include "TLFoundation/FileDescriptor.h"
#include "linux/PeerRequirement.h"
#include "support/TemporaryDirectory.h"

namespace tessaloom {
namespace {

constexpr uid_t user = 1000;
const std::string editorInfo = "[Application]\nname=com.brindlemoor.Tessaloom\n";

TEST(PeerRequirement, AdmitsTheEditorAndTheClientOnly) {
  const PeerRequirement requirement(user, "/opt/t/libexec/tessaloom-helper");
  const auto native = [](const std::string& executable, uid_t peer = user) {
    return PeerFacts{peer, true, executable, editorInfo};
  };
  const auto sandboxed = [](const std::string& info) {
    return PeerFacts{user, false, "/opt/t/libexec/tessaloom", info};
  };
  const struct {
    const char* name;
    PeerFacts peer;
    bool isAdmitted;
  } rows[] = {
      {"editor", native("/opt/t/libexec/tessaloom"), true},
      {"client", native("/opt/t/libexec/tessaloom-helperctl"), true},
      {"another user's", native("/opt/t/libexec/tessaloom", 0), false},
      {"the helper itself", native("/opt/t/libexec/tessaloom-helper"), false},
      {"below the folder", native("/opt/t/libexec/x/tessaloom"), false},
      {"a folder with the same start", native("/opt/t/libexec2/tessaloom"), false},
      {"a longer name", native("/opt/t/libexec/tessaloom2"), false},
      {"nothing", native(""), false},
      {"the Flatpak editor", sandboxed(editorInfo), true},
      {"a sandbox that is no Flatpak", sandboxed(""), false},
      {"another Flatpak", sandboxed("[Application]\nname=com.brindlemoor.Tessaloom.Other\n"),
       false},
      {"other case", sandboxed("[Application]\nname=com.brindlemoor.tessaloom\n"), false},
  };
  for (const auto& row : rows) EXPECT_EQ(requirement.admits(row.peer), row.isAdmitted) << row.name;
  EXPECT_TRUE(PeerRequirement(user, "/tessaloom-helper").admits(native("/tessaloom")));
  EXPECT_FALSE(PeerRequirement(user, "").admits(native("/tessaloom")));
}

TEST(PeerRequirement, ReadsTheApplicationNameOfAKeyFile) {
  const struct {
    const char* text;
    std::optional<std::string> name;
  } rows[] = {
      {"[Context]\nname=c\n[Application]\r\n#name=b\n name = a=b \r\n[Other]\nname=d", "a=b"},
      {"[Runtime]\nname=a\n", std::nullopt},
      {"name=a\n[Application]\n", std::nullopt},
      {"[Application]\nname=a\nname=b\n", std::nullopt},
      {"[ Application ]\nname=a\n", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& row : rows) EXPECT_EQ(flatpakApplicationName(row.text), row.name) << row.text;
}

/// A child process that executes a program or becomes something else; ended with this object.
class Child {
 public:
  explicit Child(const std::function<bool()>& become) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return;
    const FileDescriptor failure(ends[0]);
    FileDescriptor report(ends[1]);
    pid = ::fork();
    if (pid == 0) {
      if (!become() && ::write(report.get(), "", 1) != 0) ::_exit(1);
      report.reset();
      for (;;) ::pause();
    }
    report.reset();
    char byte = 0;
    isReady = ::read(failure.get(), &byte, 1) == 0;
  }
  ~Child() {
    if (pid <= 0) return;
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  std::optional<PeerFacts> facts() const { return readPeerFacts(pid, user); }

  pid_t pid = -1;
  bool isReady = false;
};

TEST(PeerFacts, TellWhatAProcessRuns) {
  EXPECT_FALSE(readPeerFacts(0, user));
  const pid_t ended = Child([] { return true; }).pid;
  EXPECT_FALSE(readPeerFacts(ended, user));
  const TemporaryDirectory folder;
  // A program that was replaced while it ran, and one whose name looks like that.
  for (const std::string name : {"program", "other (deleted)"}) {
    const std::string program = folder / name;
    std::filesystem::copy_file("/bin/sleep", program);
    const Child child([&] { return ::execl(program.c_str(), "sleep", "600", nullptr) == 0; });
    ASSERT_TRUE(child.isReady);
    if (name == "program") std::filesystem::remove(program);
    EXPECT_TRUE(child.facts().value().sharesMountNamespace);
    EXPECT_EQ(child.facts().value().executable, program);
  }
}

// What stands at the root of a process in a file system tree of its own.
TEST(PeerFacts, ReadOnlyARegularFlatpakInfo) {
  const struct {
    const char* name;
    std::function<void(const std::string&)> make;
    std::optional<std::string> info;
  } rows[] = {
      {"none", [](const std::string&) {}, ""},
      {"regular", [](const std::string& path) { std::ofstream(path) << editorInfo; }, editorInfo},
      {"too long",
       [](const std::string& path) { std::ofstream(path) << std::string(65'537, '\n'); },
       std::nullopt},
      {"pipe", [](const std::string& path) { ::mkfifo(path.c_str(), 0600); }, std::nullopt},
      {"link", [](const std::string& path) { ::symlink("/proc/self/status", path.c_str()); },
       std::nullopt},
  };
  for (const auto& row : rows) {
    const TemporaryDirectory root;
    row.make(root / ".flatpak-info");
    const Child child([&] {
      return (::unshare(CLONE_NEWNS) == 0 || ::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0) &&
             ::chroot(root.path().c_str()) == 0;
    });
    if (!child.isReady) GTEST_SKIP() << "no user namespaces here";
    const auto facts = child.facts();
    EXPECT_EQ(facts.has_value(), row.info.has_value()) << row.name;
    if (!facts) continue;
    EXPECT_FALSE(facts->sharesMountNamespace) << row.name;
    EXPECT_EQ(facts->flatpakInfo, row.info) << row.name;
  }
}

}  // namespace
}  // namespace tessaloom
