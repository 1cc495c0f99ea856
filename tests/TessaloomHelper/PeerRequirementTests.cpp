#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>

#include <gtest/gtest.h>

#include "HelperCore/FileDescriptor.h"
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
  const auto sandboxed = [](const std::string& info, uid_t peer = user) {
    return PeerFacts{peer, false, "/opt/t/libexec/tessaloom", info};
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
      {"a copy elsewhere", native("/home/u/tessaloom"), false},
      {"below the folder", native("/opt/t/libexec/x/tessaloom"), false},
      {"a folder with the same start", native("/opt/t/libexec2/tessaloom"), false},
      {"a longer name", native("/opt/t/libexec/tessaloom2"), false},
      {"marked as deleted", native("/opt/t/libexec/tessaloom (deleted)"), false},
      {"nothing", native(""), false},
      {"the Flatpak editor", sandboxed(editorInfo), true},
      {"another user's Flatpak editor", sandboxed(editorInfo, 0), false},
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
      {"[Application]\nname=a\nruntime=b\n", "a"},
      {"# x\n\n[Context]\nname=c\n[Application]\r\n name = a \r\n[Other]\nname=d", "a"},
      {"[Application]\n#name=b\nname=a=b", "a=b"},
      {"[Runtime]\nname=a\n", std::nullopt},
      {"name=a\n[Application]\n", std::nullopt},
      {"[Application]\nname=a\nname=b\n", std::nullopt},
      {"[Application]\nname=a\n[Application]\nname=a\n", std::nullopt},
      {"[ Application ]\nname=a\n", std::nullopt},
      {"[Application]\nname[de]=a\n", std::nullopt},
      {"[Application]\nname", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& row : rows) EXPECT_EQ(flatpakApplicationName(row.text), row.name) << row.text;
}

// A child process that `prepare` makes what it is; absent when the system does not let it.
class PreparedChild {
 public:
  explicit PreparedChild(const std::function<bool()>& prepare) {
    int ready[2];
    if (::pipe2(ready, O_CLOEXEC) != 0) return;
    const FileDescriptor output(ready[0]);
    FileDescriptor input(ready[1]);
    pid_ = ::fork();
    if (pid_ == 0) {
      if (!prepare()) ::_exit(1);
      [[maybe_unused]] const auto written = ::write(input.get(), "", 1);
      for (;;) ::pause();
    }
    input.reset();
    char byte = 0;
    isReady_ = ::read(output.get(), &byte, 1) == 1;
  }
  ~PreparedChild() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  PreparedChild(const PreparedChild&) = delete;
  PreparedChild& operator=(const PreparedChild&) = delete;

  bool isReady() const { return isReady_; }
  std::optional<PeerFacts> facts() const { return readPeerFacts(pid_, user); }

 private:
  pid_t pid_ = -1;
  bool isReady_ = false;
};

TEST(PeerFacts, TellWhatAProcessRuns) {
  const std::string own = std::filesystem::read_symlink("/proc/self/exe");
  const auto facts = readPeerFacts(::getpid(), user);
  ASSERT_TRUE(facts);
  EXPECT_TRUE(facts->sharesMountNamespace);
  EXPECT_EQ(facts->executable, own);
  EXPECT_FALSE(readPeerFacts(0, user));
  EXPECT_FALSE(readPeerFacts(-1, user));

  // A program that was replaced while it ran, and one whose name looks like that.
  const TemporaryDirectory folder;
  const auto runCopy = [&](const std::string& name) {
    std::filesystem::copy_file("/bin/sleep", folder / name);
    const pid_t pid = ::fork();
    if (pid == 0) {
      ::execl((folder / name).c_str(), "sleep", "600", nullptr);
      ::_exit(1);
    }
    EXPECT_TRUE(eventually([&] {
      const auto now = readPeerFacts(pid, user);
      return now && now->executable == folder / name;
    }));
    return pid;
  };
  const pid_t replaced = runCopy("program");
  const pid_t named = runCopy("other (deleted)");
  std::filesystem::remove(folder / "program");
  EXPECT_EQ(readPeerFacts(replaced, user).value().executable, folder / "program");
  EXPECT_EQ(readPeerFacts(named, user).value().executable, folder / "other (deleted)");
  for (const pid_t pid : {replaced, named}) {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
    EXPECT_FALSE(readPeerFacts(pid, user));
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
      {"folder", [](const std::string& path) { ::mkdir(path.c_str(), 0700); }, std::nullopt},
      {"link",
       [](const std::string& path) {
         std::ofstream(path + "-target") << editorInfo;
         ::symlink((path + "-target").c_str(), path.c_str());
       },
       std::nullopt},
  };
  for (const auto& row : rows) {
    const TemporaryDirectory root;
    row.make(root / ".flatpak-info");
    const PreparedChild child([&] {
      const bool isAlone =
          ::unshare(CLONE_NEWNS) == 0 || ::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0;
      return isAlone && ::chroot(root.path().c_str()) == 0;
    });
    if (!child.isReady()) GTEST_SKIP() << "no user namespaces here";
    const auto facts = child.facts();
    EXPECT_EQ(facts.has_value(), row.info.has_value()) << row.name;
    if (!facts || !row.info) continue;
    EXPECT_FALSE(facts->sharesMountNamespace) << row.name;
    EXPECT_EQ(facts->flatpakInfo, *row.info) << row.name;
  }
}

}  // namespace
}  // namespace tessaloom
