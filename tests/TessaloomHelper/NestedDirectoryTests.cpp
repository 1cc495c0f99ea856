#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <thread>

#include <gtest/gtest.h>

#include "GenerationDirectory.h"
#include "support/TemporaryDirectory.h"

namespace tessaloom {
namespace {

namespace fs = std::filesystem;

TEST(NestedDirectory, IsNotWhatIsMountedThere) {
  const TemporaryDirectory perUser;
  const TemporaryDirectory outside;
  fs::create_directory(outside / "kept");
  fs::permissions(outside.path(), fs::perms(0750));
  const auto mountAt = [&](const fs::path& place) {
    fs::create_directories(place);
    EXPECT_EQ(::mount(outside.path().c_str(), place.c_str(), nullptr, MS_BIND, nullptr), 0);
  };
  bool isApart = false;
  std::thread([&] {  // Its mounts end with it.
    isApart = ::unshare(CLONE_NEWNS) == 0 &&
              ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    if (!isApart) return;
    const UUID id = UUID::random();
    mountAt(perUser / ("tessaloom-generation-" + id.string()));
    const auto refused = GenerationDirectory::create(perUser.path(), id);
    EXPECT_TRUE(!refused && refused.error() == EXDEV);
    const auto directory = GenerationDirectory::create(perUser.path(), UUID::random()).value();
    mountAt(directory.path() / "mounted");
    mountAt(directory.path() / "in/mounted");
  })
      .join();
  if (!isApart) GTEST_SKIP() << "no mount namespaces here";
  EXPECT_TRUE(fs::exists(outside / "kept"));
  EXPECT_EQ(fs::status(outside.path()).permissions(), fs::perms(0750));
}

}  // namespace
}  // namespace tessaloom
