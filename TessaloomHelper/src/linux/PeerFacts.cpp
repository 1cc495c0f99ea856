#include "linux/PeerFacts.h"

#include <utility>

#include "TLFoundation/linux/ExecutablePath.h"
#include "linux/FlatpakInstance.h"
#include "linux/ProcessDirectory.h"

namespace tessaloom {

std::expected<PeerFacts, int> readPeerFacts(pid_t process,
                                            const std::filesystem::path& runtimeDirectory) {
  const auto own = ProcessDirectory::self();
  if (!own) return std::unexpected(own.error());
  const auto directory = ProcessDirectory::open(process);
  if (!directory) return std::unexpected(directory.error());
  const auto ownTree = own->namespaceName("mnt");
  if (!ownTree) return std::unexpected(ownTree.error());
  const auto tree = directory->namespaceName("mnt");
  if (!tree) return std::unexpected(tree.error());

  PeerFacts facts{
      .sharesMountNamespace = *tree == *ownTree, .executable = {}, .flatpakApplication = {}};
  if (facts.sharesMountNamespace) {
    const auto path = executablePath(directory->descriptor());
    if (!path) return std::unexpected(path.error());
    facts.executable = path->string();
  } else {
    auto application = flatpakApplication(*directory, runtimeDirectory);
    if (!application) return std::unexpected(application.error());
    facts.flatpakApplication = *std::move(application);
  }
  return facts;
}

}  // namespace tessaloom
