#include "e2e/PrivateBus.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string_view>

namespace tessaloom {

namespace {

namespace fs = std::filesystem;

void write(const fs::path& file, std::string_view text) {
  std::ofstream(file) << text;
}

std::vector<char*> pointers(const std::vector<std::string>& texts) {
  std::vector<char*> result;
  for (const std::string& text : texts) result.push_back(const_cast<char*>(text.c_str()));
  result.push_back(nullptr);
  return result;
}

std::vector<std::string> helperEnvironment(const fs::path& root) {
  return {"LD_PRELOAD=libnss_wrapper.so", "NSS_WRAPPER_PASSWD=" + (root / "passwd").string(),
          "NSS_WRAPPER_GROUP=" + (root / "group").string(),
          // The wrapper locks before ThreadSanitizer is there to see it, and the pool's threads
          // are not joined by a process that leaves.
          "TSAN_OPTIONS=report_thread_leaks=0:atexit_sleep_ms=0:suppressions=" +
              (root / "tsan-suppressions").string()};
}

fs::path installHelper() {
  const fs::path beside = fs::read_symlink("/proc/self/exe").parent_path();
  const fs::path helper = beside / ("tessaloom-helper-" + std::to_string(::getpid()));
  fs::copy_file(TESSALOOM_HELPER, helper, fs::copy_options::overwrite_existing);
  return helper;
}

void installEngines(const fs::path& home) {
  const fs::path bin = home / ".local/bin";
  fs::create_directories(bin);
  for (const char* name : {"claude", "codex"}) {
    fs::copy_file(PRACTICE_ENGINE, bin / name);
    fs::permissions(bin / name, fs::perms(0755));
  }
}

void describeBus(const fs::path& root, const fs::path& helper) {
  write(root / "bus.conf", R"(<busconfig><type>session</type><listen>unix:path=)" +
                               (root / "bus").string() + R"(</listen><auth>EXTERNAL</auth>
<servicedir>)" + (root / "services").string() +
                               R"(</servicedir><policy context="default">
<allow send_destination="*"/><allow receive_sender="*"/><allow own="*"/></policy>
<limit name="max_incoming_bytes">1000000000</limit><limit name="max_outgoing_bytes">1000000000</limit>
<limit name="max_message_size">1000000000</limit><limit name="max_replies_per_connection">50000</limit>
</busconfig>)");
  const std::string ids = std::to_string(::getuid()) + ":" + std::to_string(::getgid());
  write(root / "passwd", "tester:x:" + ids + "::" + (root / "home").string() + ":/bin/sh\n");
  write(root / "group", "tester:x:" + std::to_string(::getgid()) + ":\n");
  write(root / "tsan-suppressions", "mutex:libnss_wrapper.so\nrace:libnss_wrapper.so\n");
  std::string command = "/usr/bin/env";
  for (const std::string& variable : helperEnvironment(root)) command += " " + variable;
  fs::create_directory(root / "services");
  write(root / "services/helper.service",
        "[D-BUS Service]\nName=group.com.brindlemoor.Tessaloom.helper\nExec=" + command + " " +
            helper.string() + "\n");
}

std::vector<std::string> preparedBus(const fs::path& root, const fs::path& helper) {
  installEngines(root / "home");
  describeBus(root, helper);
  return {"/usr/bin/dbus-daemon", "--nofork", "--nosyslog", "--print-address",
          "--config-file=" + (root / "bus.conf").string()};
}

}  // namespace

Child::Child(const std::vector<std::string>& arguments, const std::vector<std::string>& environment,
             const fs::path& output) {
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  ::posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                     0600);
  ::posix_spawn_file_actions_adddup2(&actions, 1, 2);
  std::vector<std::string> variables = environment;
  for (const char* name : {"ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS"}) {
    if (const char* value = ::getenv(name)) variables.push_back(std::string(name) + "=" + value);
  }
  const int result = ::posix_spawn(&pid_, arguments.front().c_str(), &actions, nullptr,
                                   pointers(arguments).data(), pointers(variables).data());
  ::posix_spawn_file_actions_destroy(&actions);
  if (result != 0) throw std::runtime_error("cannot start " + arguments.front());
}

Child::~Child() {
  if (pid_ < 0) return;
  signal(SIGKILL);
  wait();
}

void Child::signal(int number) {
  if (pid_ > 0) ::kill(pid_, number);
}

int Child::wait() {
  int status = 0;
  while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  pid_ = -1;
  return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

PrivateBus::PrivateBus()
    : helper_(installHelper()),
      address_("unix:path=" + (root_ / "bus")),
      bus_(preparedBus(root_.path(), helper_), {}, path("log")) {
  // It prints its address once it listens; its socket is there before.
  if (!eventually([this] { return log().contains(address_); })) {
    throw std::runtime_error("the bus did not start: " + log());
  }
}

// Without a bus, the helper leaves by itself.
PrivateBus::~PrivateBus() {
  fs::remove(helper_);
}

std::string PrivateBus::log() const {
  return textOf(path("log"));
}

std::string PrivateBus::helperLog() const {
  return textOf(path("helper-log"));
}

Child PrivateBus::startHelper() const {
  auto environment = helperEnvironment(root_.path());
  environment.push_back("DBUS_SESSION_BUS_ADDRESS=" + address_);
  return {{helper_.string()}, environment, path("helper-log")};
}

std::string textOf(const fs::path& file) {
  std::ostringstream text;
  text << std::ifstream(file).rdbuf();
  return text.str();
}

}  // namespace tessaloom
