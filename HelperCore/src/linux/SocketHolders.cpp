#include "linux/SocketHolders.h"

#include <unistd.h>

#include <algorithm>
#include <map>
#include <utility>

#include "linux/SocketDescriptors.h"
#include "linux/SocketTable.h"

namespace tessaloom {

namespace {

using Entry = ProcessScan::Entry;

/// The descriptors that this process has open only to read others.
std::vector<bool> keptDescriptors(ProcessScan& scan) {
  std::vector<bool> kept;
  for (const Entry& entry : scan.entries()) {
    for (const int number : {entry.known.statm.get(), entry.known.probe.descriptor()}) {
      if (number < 0) continue;
      const auto index = static_cast<std::size_t>(number);
      if (kept.size() <= index) kept.resize(2 * index + 1);
      kept[index] = true;
    }
  }
  return kept;
}

void read(ProcessScan& scan, Entry& entry, std::int32_t self, bool tablesAreComparable) {
  KnownProcess& known = entry.known;
  if (known.pid == self) return;
  if (known.sockets && scan.mayBeReused(known) && known.probe.isUnchanged()) return;
  const FileDescriptor stat = scan.open(known);
  if (!stat) return;
  known.sockets = readSocketDescriptors(scan.proc(), known.pid);
  const ProcessFacts* facts = scan.readFacts(known, stat);
  if (facts != nullptr && facts->threads > 1) {
    entry.namespaceMembers = addSocketsOfThreads(scan.proc(), known.pid, *known.sockets);
    facts = scan.readFacts(known, stat);
  }
  if (facts == nullptr) return;
  // Kernel threads share a table that is always empty. Where the kernel compares no tables at all,
  // as in some sandboxes, each may be shared; one that it does not compare is another user's, or of
  // a parent that may not be examined.
  entry.sharesDescriptors =
      !facts->isKernelThread &&
      (!tablesAreComparable || shareDescriptors(known.pid, facts->parentPID).value_or(false));
}

/// Last, when the others' descriptors are known.
void readOwn(ProcessScan& scan, std::int32_t self) {
  Entry* own = scan.find(self);
  if (own == nullptr) return;
  const FileDescriptor stat = scan.open(own->known);
  if (!stat || !scan.readFacts(own->known, stat)) return;
  own->known.sockets = readOwnSocketDescriptors(scan.proc(), keptDescriptors(scan));
}

void markSharingParents(ProcessScan& scan) {
  for (const Entry& entry : scan.entries()) {
    // Another user's process, which is marked for the sake of its child, has no facts.
    if (!entry.sharesDescriptors || !entry.known.facts) continue;
    if (Entry* parent = scan.find(entry.known.facts->parentPID)) parent->sharesDescriptors = true;
  }
}

/// Adds the sockets of the namespaces that are not the helper's own, each read through the first
/// process or thread in it that the kernel permits.
void addForeignNamespaces(ProcessScan& scan, SocketTable& table) {
  const std::uint32_t own = scan.proc().networkNamespace(::getpid()).value_or(0);
  std::map<std::uint32_t, SocketTable::Progress> namespaces;
  const auto add = [&](std::uint32_t network, std::int32_t member) {
    if (network != 0 && network != own) table.addFrom(scan.proc(), member, namespaces[network]);
  };
  for (const Entry& entry : scan.entries()) {
    if (entry.known.sockets) add(entry.known.sockets->networkNamespace, entry.known.pid);
    for (const NamespaceMember& each : entry.namespaceMembers) {
      add(each.networkNamespace, each.thread);
    }
  }
}

}  // namespace

std::vector<SocketHolder> readSocketHolders(ProcessScan& scan) {
  SocketTable table;
  table.addOwnNamespace(scan.proc());
  const std::int32_t self = ::getpid();
  const bool tablesAreComparable = shareDescriptors(self, self).has_value();
  scan.forEachEntry([&](Entry& entry) { read(scan, entry, self, tablesAreComparable); });
  readOwn(scan, self);
  markSharingParents(scan);
  addForeignNamespaces(scan, table);

  std::vector<SocketHolder> holders;
  for (const Entry& entry : scan.entries()) {
    if (!entry.known.facts || !entry.known.sockets) continue;
    SocketHolder holder;
    for (const std::uint32_t inode : entry.known.sockets->inodes) {
      if (const SocketInfo* socket = table.find(inode)) holder.sockets.push_back(*socket);
    }
    if (holder.sockets.empty()) continue;
    holder.pid = entry.known.pid;
    holder.name = entry.known.facts->name;
    holders.push_back(std::move(holder));
  }
  return holders;
}

}  // namespace tessaloom
