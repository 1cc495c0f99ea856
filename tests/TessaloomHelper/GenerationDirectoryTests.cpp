#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "GenerationDirectory.h"
#include "support/TemporaryDirectory.h"

namespace tessaloom {
namespace {

namespace fs = std::filesystem;

mode_t modeOf(const fs::path& path) {
  struct stat facts{};
  EXPECT_EQ(::lstat(path.c_str(), &facts), 0) << path;
  return facts.st_mode & 07777;
}

std::string contentOf(const fs::path& path) {
  std::stringstream content;
  content << std::ifstream(path).rdbuf();
  return content.str();
}

const UUID id = *UUID::parse("0f8fad5b-d9cb-469f-a165-70867728950e");
const std::string name = "tessaloom-generation-0F8FAD5B-D9CB-469F-A165-70867728950E";

TEST(GenerationDirectoryTest, IsPrivateWhateverTheUmaskAndGoesWithItsObject) {
  for (const mode_t umask : {0U, 022U, 0777U}) {
    const TemporaryDirectory outer;
    const fs::path perUser = outer.path() / "missing" / "perUser";
    const mode_t before = ::umask(umask);
    {
      const auto directory = GenerationDirectory::create(perUser, id);
      ASSERT_TRUE(directory) << umask;
      EXPECT_EQ(directory->path(), perUser / name);
      EXPECT_EQ(directory->write("schema.json", "{}"), perUser / name / "schema.json");
      EXPECT_EQ(modeOf(perUser), 0700U);
      EXPECT_EQ(modeOf(perUser / name), 0700U);
      EXPECT_EQ(contentOf(perUser / name / "schema.json"), "{}");
    }
    ::umask(before);
    EXPECT_TRUE(fs::is_empty(perUser));
  }
}

TEST(GenerationDirectoryTest, TakesOverOnlyWhatIsPrivate) {
  struct Row {
    const char* what;
    std::function<void(const fs::path& place, const fs::path& elsewhere)> prepare;
    int error;
  };
  const auto makeWithMode = [](mode_t mode) {
    return [mode](const fs::path& place, const fs::path&) {
      fs::create_directory(place);
      ::chmod(place.c_str(), mode);
      std::ofstream(place / "left") << "x";
    };
  };
  const Row rows[] = {
      {"private", makeWithMode(0700), 0},
      {"readable by others", makeWithMode(0755), EACCES},
      {"group bit", makeWithMode(02700), EACCES},
      {"link to a private directory",
       [](const fs::path& place, const fs::path& elsewhere) {
         fs::create_directory_symlink(elsewhere, place);
       },
       ENOTDIR},
      {"dangling link",
       [](const fs::path& place, const fs::path&) { fs::create_symlink("/nowhere", place); },
       ENOTDIR},
      {"file", [](const fs::path& place, const fs::path&) { std::ofstream(place) << "x"; },
       ENOTDIR},
  };
  for (const Row& row : rows) {
    const TemporaryDirectory perUser;
    const TemporaryDirectory elsewhere;
    std::ofstream(elsewhere / "kept") << "x";
    row.prepare(perUser.path() / name, elsewhere.path());
    {
      const auto directory = GenerationDirectory::create(perUser.path(), id);
      EXPECT_EQ(directory ? 0 : directory.error(), row.error) << row.what;
    }
    EXPECT_TRUE(fs::is_empty(perUser.path())) << row.what;

    // The directory that holds it is held to the same rule, and is never cleaned.
    row.prepare(perUser.path() / "perUser", elsewhere.path());
    {
      const auto directory = GenerationDirectory::create(perUser.path() / "perUser", id);
      EXPECT_EQ(directory ? 0 : directory.error(), row.error) << row.what;
    }
    EXPECT_TRUE(fs::exists(fs::symlink_status(perUser.path() / "perUser"))) << row.what;
    EXPECT_FALSE(fs::exists(perUser.path() / "perUser" / name)) << row.what;
    EXPECT_TRUE(fs::exists(elsewhere.path() / "kept")) << row.what;
  }
}

TEST(GenerationDirectoryTest, RemovesWhateverAnEngineLeft) {
  const TemporaryDirectory perUser;
  const TemporaryDirectory elsewhere;
  std::ofstream(elsewhere / "kept") << "x";
  ::chmod(elsewhere.path().c_str(), 0750);
  // Permissions bind the unprivileged only, so a process of its own gives its privileges up.
  const auto leaveAndRemove = [&] {
    if (::getuid() == 0) {
      constexpr uid_t nobody = 65534;
      if (::chown(perUser.path().c_str(), nobody, nobody) != 0 ||
          ::setresuid(nobody, nobody, nobody) != 0) {
        std::_Exit(1);
      }
    }
    {
      const auto directory = GenerationDirectory::create(perUser.path(), id);
      if (!directory) std::_Exit(2);
      const fs::path root = directory->path();
      fs::create_directory_symlink(elsewhere.path(), root / "link");
      fs::create_directories(root / "locked" / "inner" / "more");
      fs::create_directory_symlink(elsewhere.path(), root / "locked" / "inner" / "link");
      std::ofstream(root / "locked" / "inner" / "file") << "x";
      ::mkfifo((root / "locked" / "fifo").c_str(), 0);
      std::ofstream(root / ".removed-0") << "x";
      fs::create_directories(root / ".removed-1" / ".removed-1" / ".removed-0");
      for (const char* locked : {"locked/inner/more", "locked/inner", "locked"}) {
        ::chmod((root / locked).c_str(), 0);
      }
      // Deeper than any path may be long.
      FileDescriptor deep(::open(root.c_str(), O_RDONLY | O_DIRECTORY));
      for (int depth = 0; depth < 1'200; ++depth) {
        ::mkdirat(deep.get(), "deeper", 0700);
        deep = FileDescriptor(::openat(deep.get(), "deeper", O_RDONLY | O_DIRECTORY));
      }
      ::chmod(root.c_str(), 0500);
      const auto replaced = GenerationDirectory::create(perUser.path(), UUID::random());
      if (!replaced || !fs::remove(replaced->path())) std::_Exit(4);
      fs::create_directory_symlink(elsewhere.path(), replaced->path());
    }
    std::_Exit(fs::is_empty(perUser.path()) ? 0 : 3);
  };
  EXPECT_EXIT(leaveAndRemove(), testing::ExitedWithCode(0), "");
  EXPECT_TRUE(fs::exists(elsewhere.path() / "kept"));
  EXPECT_EQ(modeOf(elsewhere.path()), 0750U);
}

TEST(GenerationDirectoryTest, WritesAllOrTellsThatItDidNot) {
  const TemporaryDirectory perUser;
  const auto directory = GenerationDirectory::create(perUser.path(), id);
  ASSERT_TRUE(directory);
  fs::create_directory(directory->path() / "taken");
  EXPECT_FALSE(directory->write("taken", "text"));
  fs::create_symlink("/dev/full", directory->path() / "full");
  EXPECT_FALSE(directory->write("full", "text"));
  EXPECT_TRUE(directory->write("file", std::string(100, 'x')));
  EXPECT_TRUE(directory->write("file", "short"));
  EXPECT_EQ(contentOf(directory->path() / "file"), "short");
}

}  // namespace
}  // namespace tessaloom
