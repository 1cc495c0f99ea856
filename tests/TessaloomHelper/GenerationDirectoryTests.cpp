#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "GenerationDirectory.h"
#include "support/TemporaryDirectory.h"

namespace tessaloom {
namespace {

namespace fs = std::filesystem;

const UUID id = *UUID::parse("0f8fad5b-d9cb-469f-a165-70867728950e");
const std::string name = "tessaloom-generation-0F8FAD5B-D9CB-469F-A165-70867728950E";

TEST(GenerationDirectoryTest, IsPrivateWhateverTheUmaskAndGoesWithItsObject) {
  for (const mode_t umask : {mode_t{0}, mode_t{0777}}) {
    const TemporaryDirectory outer;
    const fs::path perUser = outer.path() / "missing" / "perUser";
    const mode_t before = ::umask(umask);
    {
      const auto directory = GenerationDirectory::create(perUser, id);
      ASSERT_TRUE(directory) << umask;
      EXPECT_EQ(directory->path(), perUser / name);
      EXPECT_TRUE(directory->write("schema.json", "of an earlier run"));
      EXPECT_EQ(directory->write("schema.json", "{}"), perUser / name / "schema.json");
      EXPECT_FALSE(directory->write(".", "a file has no such name"));
      ASSERT_EQ(::mkfifo((perUser / name / "pipe").c_str(), 0700), 0);
      EXPECT_FALSE(directory->write("pipe", "no one reads"));
      const FileDescriptor reader(::open((perUser / name / "pipe").c_str(), O_RDWR));
      EXPECT_FALSE(directory->write("pipe", "read by another process"));
      EXPECT_EQ(fs::status(perUser).permissions(), fs::perms(0700));
      EXPECT_EQ(fs::status(perUser / name).permissions(), fs::perms(0700));
      EXPECT_EQ(fs::file_size(perUser / name / "schema.json"), 2U);
    }
    ::umask(before);
    EXPECT_TRUE(fs::is_empty(perUser));
  }
}

TEST(GenerationDirectoryTest, TakesOverOnlyWhatIsPrivate) {
  const TemporaryDirectory elsewhere;
  std::ofstream(elsewhere / "kept") << "x";
  const auto makeWithMode = [](mode_t mode) {
    return [mode](const fs::path& place) {
      fs::create_directory(place);
      ::chmod(place.c_str(), mode);
      std::ofstream(place / "left") << "x";
    };
  };
  const struct {
    const char* what;
    std::function<void(const fs::path& place)> prepare;
    int error;
  } rows[] = {
      {"private", makeWithMode(0700), 0},
      {"readable by others", makeWithMode(0755), EACCES},
      {"group bit", makeWithMode(02700), EACCES},
      {"link", [&](const fs::path& place) { fs::create_symlink(elsewhere.path(), place); },
       ENOTDIR},
      {"file", [](const fs::path& place) { std::ofstream(place) << "x"; }, ENOTDIR},
  };
  for (const auto& row : rows) {
    const TemporaryDirectory temporary;
    const auto errorIn = [&](const fs::path& perUser) {
      const auto directory = GenerationDirectory::create(perUser, id);
      return directory ? 0 : directory.error();
    };
    row.prepare(temporary.path() / name);
    EXPECT_EQ(errorIn(temporary.path()), row.error) << row.what;
    EXPECT_TRUE(fs::is_empty(temporary.path())) << row.what;

    // The directory that holds it is held to the same rule, and only an empty one is removed.
    const fs::path perUser = temporary.path() / "perUser";
    row.prepare(perUser);
    EXPECT_EQ(errorIn(perUser), row.error) << row.what;
    removeUnusedDirectory(perUser);
    EXPECT_TRUE(fs::exists(perUser)) << row.what;
    EXPECT_FALSE(fs::exists(perUser / name)) << row.what;
    EXPECT_TRUE(fs::exists(elsewhere / "kept")) << row.what;
  }
  const auto refused = GenerationDirectory::create("/sys/none/below", id);
  EXPECT_TRUE(!refused && refused.error() != ENOENT);
}

TEST(GenerationDirectoryTest, UnusedDirectoryIsRemovedWithoutHarmToWhoStartsToUseIt) {
  const TemporaryDirectory outer;
  const fs::path perUser = outer.path() / "perUser";
  {
    const auto used = openPrivateDirectory(perUser);
    removeUnusedDirectory(perUser);
    EXPECT_TRUE(fs::exists(perUser));
  }
  {
    const FileDescriptor removing(::open(perUser.c_str(), O_RDONLY));
    ASSERT_EQ(::flock(removing.get(), LOCK_EX), 0);
    EXPECT_EQ(openPrivateDirectory(perUser), std::unexpected(EBUSY)) << "after a second";
    fs::permissions(perUser, fs::perms{0755});
    EXPECT_EQ(openPrivateDirectory(perUser), std::unexpected(EACCES));
    fs::permissions(perUser, fs::perms{0700});
  }
  std::atomic<bool> isDone = false;
  std::thread exiting([&] {
    while (!isDone) removeUnusedDirectory(perUser);
  });
  for (int i = 0; i < 1'000; ++i) {
    const auto used = openPrivateDirectory(perUser);
    EXPECT_TRUE(used && fs::exists(perUser));
  }
  isDone = true;
  exiting.join();
  // What a process that was killed has left goes with it.
  const fs::path left = perUser / (name + "-left");
  {
    const auto used = GenerationDirectory::create(perUser, id);
    EXPECT_TRUE(openPrivateDirectory(left));
    std::ofstream(left / "file") << "x";
    fs::permissions(left, fs::perms{0755});  // As an engine may have done.
    removeUnusedDirectory(perUser);
    EXPECT_FALSE(fs::exists(left));
    EXPECT_TRUE(fs::exists(perUser / name));
  }
  removeUnusedDirectory(perUser);
  EXPECT_FALSE(fs::exists(perUser));
}

/// Leaves what is hard to remove in a generation's directory.
void clutter(const fs::path& root, const fs::path& elsewhere) {
  fs::create_directories(root / "locked" / "inner" / "more");
  fs::create_directory_symlink(elsewhere, root / "locked" / "inner" / "link");
  ::mkfifo((root / "locked" / "fifo").c_str(), 0);
  std::ofstream(root / ".removed-0") << "x";
  fs::create_directories(root / ".removed-1" / ".removed-1" / ".removed-0");
  for (const char* locked : {"locked/inner/more", "locked/inner", "locked"}) {
    ::chmod((root / locked).c_str(), 0);
  }
  // Deeper than any path may be long.
  const std::string longest(255, 'd');
  FileDescriptor deep(::open(root.c_str(), O_RDONLY | O_DIRECTORY));
  for (int depth = 0; depth < 40; ++depth) {
    ::mkdirat(deep.get(), longest.c_str(), 0700);
    deep = FileDescriptor(::openat(deep.get(), longest.c_str(), O_RDONLY | O_DIRECTORY));
  }
  ::chmod(root.c_str(), 0500);
}

TEST(GenerationDirectoryTest, RemovesWhateverAnEngineLeft) {
  const TemporaryDirectory perUser;
  const TemporaryDirectory elsewhere;
  std::ofstream(elsewhere / "kept") << "x";
  ::chmod(elsewhere.path().c_str(), 0750);
  // Permissions bind the unprivileged only, so a process of its own gives its privileges up; and
  // it has fewer descriptors than there are levels.
  const auto leaveAndRemove = [&] {
    constexpr uid_t nobody = 65534;
    constexpr rlimit few{32, 32};
    if (::getuid() == 0 &&
        (::chown(perUser.path().c_str(), nobody, nobody) != 0 || ::setuid(nobody) != 0)) {
      std::_Exit(1);
    }
    if (::setrlimit(RLIMIT_NOFILE, &few) != 0) std::_Exit(2);
    {
      const auto cluttered = GenerationDirectory::create(perUser.path(), id).value();
      clutter(cluttered.path(), elsewhere.path());
      const auto replaced = GenerationDirectory::create(perUser.path(), UUID::random()).value();
      const auto recreated = GenerationDirectory::create(perUser.path(), UUID::random()).value();
      if (!fs::remove(replaced.path()) || !fs::remove(recreated.path())) std::_Exit(4);
      clutter(recreated.path(), elsewhere.path());
      fs::create_directory_symlink(elsewhere.path(), replaced.path());
    }
    std::_Exit(fs::is_empty(perUser.path()) ? 0 : 3);
  };
  EXPECT_EXIT(leaveAndRemove(), testing::ExitedWithCode(0), "");
  EXPECT_TRUE(fs::exists(elsewhere / "kept"));
  EXPECT_EQ(fs::status(elsewhere.path()).permissions(), fs::perms(0750));
}

TEST(GenerationDirectoryTest, RemovalGivesUpAtItsTimeLimit) {
  for (const char* place : {".", "nested"}) {
    const TemporaryDirectory perUser;
    {
      const auto directory =
          GenerationDirectory::create(perUser.path(), id, std::chrono::milliseconds(1)).value();
      const fs::path full = directory.path() / place;
      fs::create_directory(full);
      std::ofstream(full / "0");
      for (int i = 1; i < 5'000; ++i) fs::create_hard_link(full / "0", full / std::to_string(i));
    }
    EXPECT_FALSE(fs::is_empty(perUser.path())) << place;
  }
}

}  // namespace
}  // namespace tessaloom
