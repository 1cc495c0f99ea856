#include <array>
#include <numeric>
#include <vector>

#include <gtest/gtest.h>

#include "macos/KernelLists.h"

namespace tessaloom {
namespace {

using Sizes = std::vector<std::size_t>;

TEST(KernelLists, ReadsTheTableAgainOnlyWhenItOutgrewTheBuffer) {
  using Record = std::array<char, 10>;
  /// One attempt: how sizing the table ends and what it says, and then how filling the buffer does.
  struct Attempt {
    int sizeError;
    std::size_t neededBytes;
    int fillError = 0;
    std::size_t filledBytes = 0;
  };
  const Attempt tooSmall{0, 30, ENOMEM};
  struct Row {
    const char* name;
    std::vector<Attempt> attempts;
    std::size_t records;
    Sizes rooms;  ///< Bytes offered to each fill.
  };
  const Row rows[] = {
      {"sizes are rounded down", {{0, 29, 0, 29}}, 2, {180}},
      {"never more than the room", {{0, 10, 0, 400}}, 17, {170}},
      {"ENOMEM while sizing is final", {{ENOMEM, 10}}, 0, {}},
      {"an empty table", {{0, 0}}, 0, {}},
      {"another failure is final", {{0, 10, EPERM}}, 0, {170}},
      {"the size is asked for afresh", {tooSmall, {0, 900, 0, 700}}, 70, {190, 1060}},
      {"the fifth ENOMEM is final", std::vector(5, tooSmall), 0, Sizes(5, 190)},
  };
  for (const Row& row : rows) {
    Sizes rooms;
    auto attempt = row.attempts.begin();
    const auto records = readTable<Record>([&](Record* buffer, std::size_t& bytes) {
      if (buffer == nullptr) {
        bytes = attempt->neededBytes;
        return attempt->sizeError;
      }
      rooms.push_back(bytes);
      bytes = attempt->filledBytes;
      return attempt++->fillError;
    });
    EXPECT_EQ(records.size(), row.records) << row.name;
    EXPECT_EQ(rooms, row.rooms) << row.name;
  }
}

TEST(KernelLists, SizesAListAndThenFillsIt) {
  struct Row {
    int needed, filled, room;  ///< No room when the fill must not be called.
    std::size_t records;
  };
  // Into the spare room, never more than the room, a part of a record, failing size, failing fill.
  for (const Row& row :
       {Row{8, 72, 72, 18}, {4, 400, 68, 17}, {7, 6, 68, 1}, {0, 4, 0, 0}, {8, -1, 72, 0}}) {
    int room = 0;
    const auto list = readList<std::int32_t>([&](std::int32_t* buffer, int bytes) {
      if (buffer == nullptr) return row.needed;
      room = bytes;
      std::iota(buffer, buffer + bytes / 4, 1);
      return row.filled;
    });
    EXPECT_EQ(room, row.room) << row.needed;
    EXPECT_EQ(list.size(), row.records) << row.needed;
    EXPECT_TRUE(list.empty() || list.back() == static_cast<std::int32_t>(row.records));
  }
}

}  // namespace
}  // namespace tessaloom
