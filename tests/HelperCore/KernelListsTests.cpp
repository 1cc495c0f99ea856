#include <array>
#include <cstring>
#include <numeric>
#include <vector>

#include <gtest/gtest.h>

#include "macos/KernelLists.h"

namespace tessaloom {
namespace {

using Record = std::array<char, 648>;

/// One attempt to read a table: it is sized, and then the buffer is filled.
struct Attempt {
  int sizeError = 0;
  std::size_t neededBytes = 0;
  int fillError = 0;
  std::size_t filledBytes = 0;
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
      {"sizes are rounded down", {{0, 3 * one - 1, 0, 2 * one + 647}}, 2, {18}},
      {"never more than the room", {{0, one, 0, 40 * one}}, 17, {17}},
      {"ENOMEM while sizing is final", {{ENOMEM, one}}, 0, {}},
      {"another failure is final", {{0, one, EPERM}}, 0, {17}},
      {"the size is asked for afresh", {tooSmall, {0, 90 * one, 0, 70 * one}}, 70, {19, 106}},
      {"the fifth ENOMEM is final", std::vector(5, tooSmall), 0, {19, 19, 19, 19, 19}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::size_t sized = 0;
    std::vector<std::size_t> rooms;
    auto records = readTable<Record>([&](Record* buffer, std::size_t& bytes) {
      if (buffer == nullptr) {
        const Attempt& attempt = row.attempts.at(sized++);
        bytes = attempt.neededBytes;
        return attempt.sizeError;
      }
      const Attempt& attempt = row.attempts.at(sized - 1);
      rooms.push_back(bytes / one);
      std::memset(buffer, 'x', std::min(bytes, attempt.filledBytes));
      bytes = attempt.filledBytes;
      return attempt.fillError;
    });
    EXPECT_EQ(records.size(), row.records);
    EXPECT_EQ(rooms, row.rooms);
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
      {"into the spare room", 8, 72, 18, 72}, {"never more than the room", 4, 400, 17, 68},
      {"a part of a record", 7, 6, 1, 68},    {"failing size", 0, 4, 0, 0},
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
