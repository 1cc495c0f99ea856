#pragma once
#include_next <spawn.h>
#define POSIX_SPAWN_CLOEXEC_DEFAULT 0x4000
extern "C" {
int posix_spawnattr_setflags(posix_spawnattr_t* attributes, short flags) noexcept
    __asm__("darwin_spawnattr_setflags");
int posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                const posix_spawnattr_t* attributes, char* const* arguments,
                char* const* environment) __asm__("darwin_spawn");
}
