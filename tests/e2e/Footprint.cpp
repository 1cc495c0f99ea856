#include <algorithm>
#include <cctype>
#include <sstream>

#include "e2e/EndToEnd.h"

namespace tessaloom {

namespace {

namespace fs = std::filesystem;

struct ProcessRow {
  pid_t pid = 0;
  char state = 0;
  pid_t parent = 0;
  pid_t group = 0;
};

std::vector<ProcessRow> allProcesses() {
  std::vector<ProcessRow> rows;
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator("/proc", ignored)) {
    const std::string stat = textOf(entry.path() / "stat");
    const auto end = stat.rfind(')');
    if (end == std::string::npos || std::isdigit(stat.front()) == 0) continue;
    ProcessRow row{.pid = std::stoi(stat)};
    std::istringstream(stat.substr(end + 1)) >> row.state >> row.parent >> row.group;
    rows.push_back(row);
  }
  return rows;
}

std::size_t entriesOf(const fs::path& folder) {
  std::error_code ignored;
  return static_cast<std::size_t>(std::distance(fs::directory_iterator(folder, ignored), {}));
}

}  // namespace

ProcessFootprint footprintOf(pid_t process) {
  const fs::path folder = "/proc/" + std::to_string(process);
  return {.descriptors = entriesOf(folder / "fd"),
          .threads = entriesOf(folder / "task"),
          .children = childrenOf(process).size()};
}

long processorTime(pid_t process) {
  const std::string stat = textOf("/proc/" + std::to_string(process) + "/stat");
  std::istringstream fields(stat.substr(stat.rfind(')') + 1));
  std::string skipped;
  for (int field = 3; field < 14; ++field) fields >> skipped;
  long user = 0;
  long system = 0;
  fields >> user >> system;
  return user + system;
}

std::vector<pid_t> childrenOf(pid_t process) {
  std::vector<pid_t> children;
  for (const ProcessRow& row : allProcesses()) {
    if (row.parent == process) children.push_back(row.pid);
  }
  return children;
}

bool isGroupAlive(pid_t group) {
  return std::ranges::any_of(allProcesses(), [&](const ProcessRow& row) {
    return row.group == group && row.state != 'Z';
  });
}

bool isAlive(pid_t process) {
  return std::ranges::any_of(allProcesses(), [&](const ProcessRow& row) {
    return row.pid == process && row.state != 'Z';
  });
}

}  // namespace tessaloom
