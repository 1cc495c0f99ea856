#pragma once

#include <cstdint>
#include <string>

// The Objective-C runtime of a Mac, as far as the front end needs it. The records below are what
// clang writes for -fobjc-runtime=macosx, into an ELF file as into a Mach-O file.

using Selector = const char*;  ///< Interned: equal names are one pointer.
using Implementation = void (*)();

struct MethodList {
  struct Method {
    Selector name;
    const char* types;
    Implementation implementation;
  };
  std::uint32_t entrySize, count;
  Method methods[1];
  const Method* begin() const { return methods; }
  const Method* end() const { return methods + count; }
};

struct ClassData {
  std::uint32_t flags, instanceStart, instanceSize, reserved;
  const void* ivarLayout;
  const char* name;
  MethodList* methods;
};

struct ClassRecord {
  ClassRecord* isa;
  ClassRecord* superclass;
  void* cache;
  void* table;
  ClassData* data;
};

struct ProtocolRecord {
  ClassRecord* isa;
  const char* name;
  void* protocols;
  MethodList* instanceMethods;
  void* others[4];
  std::uint32_t size, flags;
  const char** extendedTypes;
};

struct ObjectRecord {
  ClassRecord* isa;
};

namespace runtime {

/// Ends the process: the real system would not have accepted, or not have survived, what was done.
[[noreturn]] void fault(const std::string& what);

/// The selector of that name; null when no code of this program knows it.
Selector find(const std::string& name);
bool implements(ObjectRecord* object, Selector selector);

ObjectRecord* allocate(ClassRecord* of);
void destroy(ObjectRecord* object);

/// What instances of a class are sent instead of a method that it lacks.
void setForwarder(ClassRecord* of, Implementation forwarder);

/// How many objects and blocks live, and of which classes: "NAME COUNT", one a line.
std::string liveObjects();

}  // namespace runtime

extern "C" void objc_msgSend();
