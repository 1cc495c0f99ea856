#include "HelperCore/ListeningPorts.h"

#include <optional>
#include <string>
#include <unordered_set>
#include <utility>

#include "CommandName.h"
#include "HelperCore/PortDecoding.h"

namespace tessaloom {

namespace {

/// The row that a socket gives, if it gives one.
std::optional<PortSample> makePortSample(const SocketInfo& info, std::int32_t pid,
                                         const std::string& processName) {
  const SocketKind kind = PortDecoding::classify(info);
  if (kind == SocketKind::other) return std::nullopt;
  return PortSample{PortDecoding::port(info), std::string{transportText(kind)}, pid, processName,
                    addressText(info)};
}

}  // namespace

std::vector<PortSample> listListeningPorts(Kernel& kernel) {
  std::vector<PortSample> rows;
  std::unordered_set<PortSample> emitted;
  for (const SocketHolder& holder : kernel.fetchSocketHolders(kernel.userID())) {
    const std::string processName = commandName(holder.name);
    for (const SocketInfo& info : holder.sockets) {
      auto row = makePortSample(info, holder.pid, processName);
      if (row && emitted.insert(*row).second) rows.push_back(*std::move(row));
    }
  }
  return rows;
}

}  // namespace tessaloom
