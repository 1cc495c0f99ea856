#pragma once

#include "TLFoundation/FileDescriptor.h"

namespace tessaloom {

/// Opens the directory `name` in the open directory `parent` for reading, following no link.
/// Returns an empty descriptor with errno set on failure: EXDEV if another file system is mounted
/// there. Linux 5.6 and later refuse without contacting that file system; older kernels open it.
FileDescriptor openNestedDirectory(int parent, const char* name);

/// Clears the flags with which an owner keeps a file from being changed or removed, where the
/// system has them; not of what is mounted there. Whether it did.
bool allowRemoval(int parent, const char* name);

}  // namespace tessaloom
