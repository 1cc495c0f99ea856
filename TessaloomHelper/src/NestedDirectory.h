#pragma once

#include "TLFoundation/FileDescriptor.h"

namespace tessaloom {

/// Opens for reading the directory `name` of the open directory `parent`, which are in the same
/// mounted file system. No link is followed. None, with errno set, when it cannot be opened: EXDEV
/// when another file system is mounted there, which is not asked anything on Linux from 5.6 on. An
/// older kernel opens what is mounted.
FileDescriptor openNestedDirectory(int parent, const char* name);

/// Clears the flags with which an owner keeps a file from being changed or removed, where the
/// system has them; not of what is mounted there. Whether it did.
bool allowRemoval(int parent, const char* name);

}  // namespace tessaloom
