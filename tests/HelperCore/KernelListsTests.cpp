#include <array>
#include <cstring>
#include <numeric>
#include <vector>

#include <gtest/gtest.h>

#include "macos/KernelLists.h"

namespace tessaloom {
namespace {

using Record = std::array<char, 648>;

/// A table read as a script plays it: each attempt sizes the table and then fills the buffer.
struct Attempt {
  int sizeError = 0;
  std::size_t neededBytes = 0;
  int fillError = 0;
  std::size_t filledBytes = 0;
};

class ScriptedTable {
 public:
  explicit ScriptedTable(std::vector<Attempt> attempts) : attempts_(std::move(attempts)) {}

  int operator()(Record* buffer, std::size_t& bytes) {
    if (buffer == nullptr) {
      const Attempt& attempt = attempts_.at(sized_++);
      bytes = attempt.neededBytes;
      return attempt.sizeError;
    }
    const Attempt& attempt = attempts_.at(sized_ - 1);
    rooms_.push_back(bytes / sizeof(Record));
    std::memset(buffer, 'x', std::min(bytes, attempt.filledBytes));
    bytes = attempt.filledBytes;
    return attempt.fillError;
  }

  std::size_t attemptCount() const { return sized_; }
  const std::vector<std::size_t>& rooms() const { return rooms_; }

 private:
  std::vector<Attempt> attempts_;
  std::size_t sized_ = 0;
  std::vector<std::size_t> rooms_;
};

TEST(KernelLists, ReadsTheTableAgainOnlyWhenItOutgrewTheBuffer) {
  constexpr std::size_t one = sizeof(Record);
  const Attempt tooSmall{.neededBytes = 3 * one, .fillError = ENOMEM};
  struct Row {
    const char* name;
    std::vector<Attempt> attempts;
    std::size_t records;
    std::vector<std::size_t> rooms;  ///< Records that fitted the buffer, one entry for each fill.
  };
  const Row rows[] = {
      {"read at once", {{0, 3 * one, 0, 2 * one}}, 2, {19}},
      {"sizes are rounded down", {{0, 3 * one - 1, 0, 2 * one + 647}}, 2, {18}},
      {"never more than the room", {{0, one, 0, 40 * one}}, 17, {17}},
      {"size fails", {{EPERM, one}}, 0, {}},
      {"ENOMEM while sizing is final", {{ENOMEM, one}}, 0, {}},
      {"nothing to read", {{0, 0}}, 0, {}},
      {"one byte is sized like none", {{0, 1, 0, one}}, 1, {16}},
      {"another failure is final", {{0, one, EPERM}}, 0, {17}},
      {"the size is asked for afresh", {tooSmall, {0, 90 * one, 0, 70 * one}}, 70, {19, 106}},
      {"sizing fails on the second attempt", {tooSmall, {EPERM, one}}, 0, {19}},
      {"another failure after ENOMEM", {tooSmall, {0, one, EINVAL}}, 0, {19, 17}},
      {"the fifth attempt counts",
       {tooSmall, tooSmall, tooSmall, tooSmall, {0, one, 0, one}},
       1,
       {19, 19, 19, 19, 17}},
      {"the fifth ENOMEM is final",
       {tooSmall, tooSmall, tooSmall, tooSmall, tooSmall},
       0,
       {19, 19, 19, 19, 19}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    ScriptedTable table(row.attempts);
    EXPECT_EQ(readTable<Record>(std::ref(table)).size(), row.records);
    EXPECT_EQ(table.attemptCount(), row.attempts.size());
    EXPECT_EQ(table.rooms(), row.rooms);
  }
}

TEST(KernelLists, SizesAListAndThenFillsIt) {
  struct Row {
    const char* name;
    int needed;
    int filled;
    std::size_t records;
    int room;  ///< Bytes offered to the fill; 0 when it must not be called.
  };
  const Row rows[] = {
      {"fewer than announced", 12, 8, 2, 76},
      {"into the spare room", 8, 72, 18, 72},
      {"never more than the room", 4, 400, 17, 68},
      {"a part of a record", 7, 6, 1, 68},
      {"no size", 0, 4, 0, 0},
      {"failing size", -1, 4, 0, 0},
      {"nothing filled", 8, 0, 0, 72},
      {"failing fill", 8, -1, 0, 72},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    int room = 0;
    auto list = readList<std::int32_t>([&](std::int32_t* buffer, int bytes) {
      if (buffer == nullptr) return row.needed;
      room = bytes;
      std::iota(buffer, buffer + bytes / 4, 1);
      return row.filled;
    });
    EXPECT_EQ(room, row.room);
    ASSERT_EQ(list.size(), row.records);
    const std::int32_t last = list.empty() ? 0 : list.back();
    EXPECT_EQ(last, static_cast<std::int32_t>(row.records));
  }
}

}  // namespace
}  // namespace tessaloom
