#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <fstream>
#include <future>
#include <iterator>
#include <limits>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "HelperCore/ChildRun.h"
#include "TLFoundation/Pipe.h"
#include "TessaloomHelper/CLIRunner.h"
#include "support/TemporaryDirectory.h"

namespace tessaloom {
namespace {

using namespace std::chrono_literals;
using Outcome = std::expected<RunResult, GenerationErrorPayload>;
using Kind = GenerationFailureKind;

constexpr auto engine = GenerationEngineID::codex;
constexpr auto ample = 120s;

/// On macOS, posix_spawn starts the children. It sets no limit, and this system's own, over which
/// these cases run for macOS, has a child ignore the two signals that the C library keeps for
/// itself.
constexpr bool launchIsOwn = TESSALOOM_LAUNCH_IS_OWN;
constexpr auto nothingIgnored = launchIsOwn ? "SigIgn:\t0{16}\n" : "SigIgn:\t0{7}180{7}\n";

/// This process's children, zombies included.
std::vector<pid_t> children() {
  std::vector<pid_t> result;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream list(task.path() / "children");
    std::copy(std::istream_iterator<pid_t>(list), {}, std::back_inserter(result));
  }
  return result;
}

/// As the kernel has them: the C library keeps two signals for itself, which its functions leave
/// out.
std::uint64_t exchangeMask(std::uint64_t mask) {
  std::uint64_t before = 0;
  ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &mask, &before, sizeof mask);
  return before;
}
void setDispositions(sighandler_t disposition) {
  const unsigned long action[4] = {reinterpret_cast<unsigned long>(disposition)};
  for (const int signal : {SIGHUP, SIGTERM, 32, 33, 64}) {
    EXPECT_EQ(::syscall(SYS_rt_sigaction, signal, action, nullptr, sizeof(std::uint64_t)), 0);
  }
}

/// Waits for any child and returns the signal that ended it; -1 if there is none.
int endOfAnyChild() {
  int status = -1;
  ::wait(&status);
  return status;
}

/// From here on this process is on a system without descriptors for a child's exit and without a
/// call that closes several.
bool forbidNewerCalls() {
  sock_filter rules[] = {
      {BPF_LD | BPF_W | BPF_ABS, 0, 0, offsetof(seccomp_data, nr)},
      {BPF_JMP | BPF_JEQ | BPF_K, 1, 0, SYS_pidfd_open},
      {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, SYS_close_range},
      {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ERRNO | ENOSYS},
      {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW},
  };
  const sock_fprog program{std::size(rules), rules};
  return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

class CLIRunnerTest : public testing::Test {
 protected:
  CLIRunnerTest() { ::signal(SIGPIPE, SIG_IGN); }

  static CLIInvocation practice(std::vector<std::string> words) {
    words.insert(words.begin(), "practice");
    return {PRACTICE_ENGINE, std::move(words), {}, std::nullopt, std::nullopt};
  }

  using Timeout = std::chrono::duration<double>;

  Outcome run(std::vector<std::string> words, std::optional<UUID> requestID = std::nullopt,
              Timeout timeout = ample) {
    return runner.run(practice(std::move(words)), requestID, engine, timeout);
  }

  /// A run on another thread that is registered, and whose child has carried out the word `first`,
  /// when this returns: the child gets its input from the registered run alone.
  std::future<Outcome> start(const std::string& last, const std::string& first = "exit=0") {
    const std::string started = directory / UUID::random().string();
    auto invocation = practice({"echo-stdin", first, "touch=" + started, last});
    invocation.standardInput = "i";
    auto outcome = std::async(std::launch::async, [this, invocation] {
      return runner.run(invocation, id, engine, ample);
    });
    EXPECT_TRUE(eventually([&] { return std::filesystem::exists(started); }));
    return outcome;
  }

  static void expectFailure(const Outcome& outcome, Kind kind,
                            std::optional<std::string> detail = std::nullopt) {
    ASSERT_FALSE(outcome);
    EXPECT_EQ(outcome.error(), (GenerationErrorPayload{kind, engine, std::nullopt, detail}));
  }

  CLIRunner runner;
  TemporaryDirectory directory;
  const UUID id = UUID::random();
  /// What the words "wait-for=" and this path wait for.
  const std::string go = directory / "go";
};

TEST_F(CLIRunnerTest, StreamsWaitForTheOtherEnd) {
  auto [readEnd, writeEnd] = makePipe(PipeMode::nonblocking).value();
  const std::string text(1'000'000, 'x');
  StreamReader reader(std::move(readEnd));
  ::write(writeEnd.get(), "x", 1);
  reader.readChunk();
  StdinWriter writer(std::move(writeEnd), text);
  for (int i = 0; i < 1'000 && !reader.finished(); ++i) {
    if (i % 2 == 0) reader.readChunk();  // At first there is nothing, and then as much as fits.
    if (writer.descriptor() >= 0) writer.writeSome();
  }
  EXPECT_TRUE(reader.contents() == text + "x");
  StdinWriter unread(makePipe().value().writeEnd, text);
  unread.writeSome();
  EXPECT_EQ(unread.descriptor(), -1);
}

TEST_F(CLIRunnerTest, ReportsStatusAndBothStreams) {
  const std::string large(1'000'000, 'x');
  const struct {
    const char* name;
    std::vector<std::string> words;
    std::optional<std::string> input;
    std::int32_t status;
    std::string output;
    std::string error;
  } rows[] = {
      {"one byte, signal", {"stderr=", "signal=15"}, {}, SIGTERM, "", "\n"},
      {"diagnostics", {"stderr=it_failed", "exit=255"}, {}, 255, "", "it failed\n"},
      {"no input, ill-formed", {"echo-stdin", "invalid-utf8"}, {}, 0, "a\uFFFD\uFFFDz\n", ""},
      {"input fed while output is read", {"echo-stdin"}, large, 0, large, ""},
      {"input never read", {"no-read", "exit=3"}, large, 3, "", ""},
  };
  for (const auto& row : rows) {
    auto invocation = practice(row.words);
    invocation.standardInput = row.input;
    const auto outcome = runner.run(invocation, id, engine, ample);
    ASSERT_TRUE(outcome) << row.name;
    EXPECT_EQ(outcome->exitStatus, row.status) << row.name;
    EXPECT_TRUE(outcome->standardOutput == row.output) << row.name;
    EXPECT_EQ(outcome->standardError, row.error) << row.name;
  }
  for (const char* word : {"flood=4194314", "flood-err=4194314"}) {
    const auto outcome = run({word}).value();
    const auto size = outcome.standardOutput.size() + outcome.standardError.size();
    EXPECT_GT(size, StreamReader::cap);
    EXPECT_LE(size, StreamReader::cap + StreamReader::chunkSize);
  }
}

TEST_F(CLIRunnerTest, ChildHasWhatItIsGivenAndNothingElse) {
  // This process has no standard descriptors meanwhile, but others that a child would inherit.
  int saved[3];
  for (const int fd : {0, 1, 2}) saved[fd] = ::fcntl(fd, F_DUPFD, 3);
  for (const int fd : {2, 1, 0}) {
    ::close(fd);
    const Pipe pipe = makePipe().value();
    EXPECT_GT(std::min(pipe.readEnd.get(), pipe.writeEnd.get()), 2);
  }
  // All but SIGKILL, SIGWINCH and SIGSTOP.
  constexpr std::uint64_t mask =
      ~(1ULL << (SIGKILL - 1) | 1ULL << (SIGWINCH - 1) | 1ULL << (SIGSTOP - 1));
  const std::uint64_t maskBefore = exchangeMask(mask);
  setDispositions(SIG_IGN);
  ::signal(SIGUSR1, [](int) {});

  rlimit limit{64, 4096};
  CLIRunner limiting(launchIsOwn ? std::optional(limit) : std::nullopt);
  if (!launchIsOwn) ::getrlimit(RLIMIT_NOFILE, &limit);
  auto invocation = practice({"echo-stdin", "stderr=x", "print-fds", "print-env", "print-cwd",
                              "print-file=/proc/self/status", "print-file=/proc/self/limits"});
  invocation.standardInput = "input ";
  invocation.environment = {{"B", "2=2"}, {"A", ""}};
  invocation.workingDirectory = directory.path();
  const auto outcome = limiting.run(invocation, id, engine, ample);

  ::signal(SIGUSR1, SIG_DFL);
  setDispositions(SIG_DFL);
  EXPECT_EQ(exchangeMask(maskBefore), mask);
  for (const int fd : {0, 1, 2}) {
    ::dup2(saved[fd], fd);
    ::close(saved[fd]);
  }
  ASSERT_TRUE(outcome);
  const std::string& printed = outcome->standardOutput;
  EXPECT_TRUE(printed.starts_with("input 0\n1\n2\nA=\nB=2=2\n" + directory.path().string() + "\n"))
      << printed;
  EXPECT_EQ(outcome->standardError, "x\n");
  const auto limits = "Max open files +" + std::to_string(limit.rlim_cur) + " +" +
                      std::to_string(limit.rlim_max) + " +files";
  for (const char* line :
       {"SigBlk:\t0{16}\n", nothingIgnored, "NSpid:(.*)\nNSpgid:\\1\n", limits.c_str()}) {
    EXPECT_TRUE(std::regex_search(printed, std::regex(line))) << line << printed;
  }
}

TEST_F(CLIRunnerTest, LaunchFailuresCarryTheSystemsText) {
  std::ofstream(directory / "text") << "text";
  std::filesystem::permissions(directory / "text", std::filesystem::perms::owner_all);
  const struct {
    std::string executable;
    std::optional<std::string> workingDirectory;
    const char* detail;
  } rows[] = {
      {directory / "missing", {}, "No such file or directory"},
      {directory / "text", {}, "Exec format error"},
      {PRACTICE_ENGINE, directory / "missing", "No such file or directory"},
  };
  EXPECT_FALSE(runner.cancel(id));
  for (const auto& row : rows) {
    const CLIInvocation invocation{row.executable, {}, {}, row.workingDirectory, "input"};
    expectFailure(runner.run(invocation, id, engine, ample), Kind::launchFailed, row.detail);
    EXPECT_EQ(runner.inFlightCount(), 0U);
    EXPECT_EQ(endOfAnyChild(), -1);
  }
  // None of them consumed the cancellation; one run does.
  EXPECT_TRUE(run({})) << "a run without an id was cancelled";
  expectFailure(run({}, id), Kind::cancelled);
  EXPECT_TRUE(run({}, id));
}

TEST_F(CLIRunnerTest, StreamsThatAGrandchildHoldsOpenContributeNothing) {
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);  // A grandchild becomes this process's when orphaned.
  auto cancelled = start("wait-for=" + go, "grandchild=600000");
  const std::string started = directory / "held";
  auto held = std::async(std::launch::async, [&] {
    return run({"print-cwd", "stderr=lost", "grandchild=600000", "touch=" + started, "exit=4"});
  });
  EXPECT_TRUE(eventually([&] { return std::filesystem::exists(started); }));
  // From here on the cancellation has only as long as the streams are waited for.
  std::ofstream(go).put('\n');
  const auto isLeader = [](pid_t child) { return ::getpgid(child) == child; };
  EXPECT_TRUE(eventually([&] { return std::ranges::none_of(children(), isLeader); }));
  EXPECT_FALSE(runner.cancel(id)) << "too late, but reported";
  runner.endAll();
  expectFailure(cancelled.get(), Kind::cancelled);
  const auto outcome = held.get();
  for (const pid_t grandchild : children()) {
    ::kill(grandchild, SIGUSR1);
    EXPECT_EQ(endOfAnyChild(), SIGUSR1) << "signaled after its leader had exited";
  }
  ASSERT_TRUE(outcome);
  EXPECT_EQ(outcome->exitStatus, 4);
  EXPECT_EQ(outcome->standardOutput + outcome->standardError, "");
}

TEST_F(CLIRunnerTest, DeadlineBeatsCancellationAndConsumesIt) {
  EXPECT_FALSE(runner.cancel(id));
  const auto killed = std::chrono::steady_clock::now() + ChildProcess::killDelay;
  expectFailure(run({"hang"}, id, 20ms), Kind::timedOut,
                "The command didn’t finish within 0 seconds.");
  EXPECT_LT(std::chrono::steady_clock::now(), killed);
  EXPECT_TRUE(run({}, id));
  const auto invocation = practice({"hang"});
  EXPECT_TRUE(ChildRun::launch(invocation, std::nullopt));
  EXPECT_EQ(endOfAnyChild(), -1) << "it is not reaped";
}

TEST_F(CLIRunnerTest, SameIDAgainTakesTheEntry) {
  auto first = start("wait-for=" + go);
  auto second = start("wait-for=" + go + "-on");
  EXPECT_EQ(runner.inFlightCount(), 1U);
  // What poll has reported, a child can take back before it is read. Inherited pipes may block.
  for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    if (!read_symlink(fd, error).string().starts_with("pipe:")) continue;
    std::string word;
    int flags = 0;
    std::ifstream("/proc/self/fdinfo" / fd.path().filename()) >> word >> word >> word >> std::oct >>
        flags;
    EXPECT_TRUE((flags & O_CLOEXEC) == 0 || (flags & O_NONBLOCK) != 0) << fd;
  }
  std::ofstream(go).put('\n');
  EXPECT_TRUE(first.get());
  EXPECT_EQ(runner.inFlightCount(), 0U);
  EXPECT_FALSE(runner.cancel(id));
  std::ofstream(go + "-on").put('\n');
  expectFailure(second.get(), Kind::cancelled);
}

TEST_F(CLIRunnerTest, EndAllEndsEveryRunAndEveryLaterOne) {
  auto traced = start("exit=0", "tracer");
  auto leaving = start("hang", "leave-on-term");
  auto resisting = start("hang", "ignore-term");
  EXPECT_TRUE(runner.cancel(id));
  EXPECT_TRUE(runner.cancel(id)) << "it resists";
  auto probe = std::async(std::launch::async, [&] { return run({"hang"}); });
  EXPECT_TRUE(eventually([] { return children().size() == 4; }));
  rlimit limit;
  ::getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit low{4, limit.rlim_max};  // For poll it is too many descriptors then.
  ::setrlimit(RLIMIT_NOFILE, &low);
  runner.endAll();
  auto later = runner.run({directory / "missing", {}, {}, {}, {}}, id, engine, ample);
  for (const auto& outcome : {traced.get(), leaving.get(), resisting.get(), probe.get(), later}) {
    expectFailure(outcome, Kind::cancelled);
  }
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

TEST_F(CLIRunnerTest, ManagesWithoutTheNewerCalls) {
  const auto runThere = [this] {
    if (!forbidNewerCalls() || ::dup(STDIN_FILENO) < 0) std::_Exit(77);
    const auto finished = run({"stderr=x", "print-fds", "exit=3"}, id);
    const auto late = run({"grandchild=600000", "hang"}, id, 100ms);
    ::signal(SIGCHLD, SIG_IGN);  // Then the system reaps it.
    const auto unknown = run({"exit=3"}, id, 9s);
    const bool right = finished && finished->exitStatus == 3 && finished->standardError == "x\n" &&
                       finished->standardOutput == "0\n1\n2\n" && !late &&
                       late.error().kind == Kind::timedOut && unknown && unknown->exitStatus == -1;
    std::_Exit(right && endOfAnyChild() == -1 ? 0 : 1);
  };
  EXPECT_EXIT(runThere(), testing::ExitedWithCode(0), "");
}

TEST_F(CLIRunnerTest, TimeoutsThatAreNotANumberOfSecondsEndTheProcess) {
  for (const double timeout : {std::numeric_limits<double>::infinity(), std::nan(""), 0x1p63}) {
    EXPECT_DEATH(run({}, id, Timeout(timeout)), "");
  }
  EXPECT_TRUE(run({}, id, Timeout(0x1p62)));
}

}  // namespace
}  // namespace tessaloom
