#pragma once

#include <filesystem>
#include <string>

namespace tessaloom {

/// A directory's path as it is joined and handed to children: without trailing slashes, unless it
/// is the root.
inline std::string directoryText(const std::filesystem::path& directory) {
  std::string text = directory.string();
  while (text.size() > 1 && text.ends_with('/')) text.pop_back();
  return text;
}

}  // namespace tessaloom
