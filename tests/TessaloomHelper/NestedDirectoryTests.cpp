#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "GenerationDirectory.h"
#include "support/TemporaryDirectory.h"

namespace tessaloom {
namespace {

namespace fs = std::filesystem;

/// 0 unless an expectation fails; for a process of its own, whose mounts end with it.
int generateWithMounts(const fs::path& perUser, const fs::path& outside) {
  const auto mountAt = [&](const fs::path& place) {
    fs::create_directories(place);
    return ::mount(outside.c_str(), place.c_str(), nullptr, MS_BIND, nullptr) == 0;
  };
  const UUID id = UUID::random();
  if (!mountAt(perUser / ("tessaloom-generation-" + id.string()))) return 1;
  const auto refused = GenerationDirectory::create(perUser, id);
  if (refused || refused.error() != EXDEV) return 2;
  const auto directory = GenerationDirectory::create(perUser, UUID::random()).value();
  return mountAt(directory.path() / "mounted") && mountAt(directory.path() / "in/mounted") ? 0 : 1;
}

TEST(NestedDirectory, IsNotWhatIsMountedThere) {
  const TemporaryDirectory perUser;
  const TemporaryDirectory outside;
  fs::create_directory(outside / "kept");
  fs::permissions(outside.path(), fs::perms(0750));
  const pid_t child = ::fork();
  if (child == 0) {
    const bool isApart =
        (::unshare(CLONE_NEWNS) == 0 || ::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0) &&
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    ::_exit(isApart ? generateWithMounts(perUser.path(), outside.path()) : 77);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "no mount namespaces here";
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(fs::exists(outside / "kept"));
  EXPECT_EQ(fs::status(outside.path()).permissions(), fs::perms(0750));
}

}  // namespace
}  // namespace tessaloom
