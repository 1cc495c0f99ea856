#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace code_signing {

/// Whether a process runs a program whose signature meets a requirement. A program's signature is
/// the file beside it with the ending ".signature": lines "identifier NAME", "anchor apple", "field
/// OID" and "unit NAME". Faults on a requirement that is not well formed.
bool meets(pid_t process, std::string_view requirement);

}  // namespace code_signing
