#pragma once
#include_next <unistd.h>
#define _CS_DARWIN_USER_TEMP_DIR 65537
extern "C" size_t confstr(int name, char* buffer, size_t size) noexcept __asm__("darwin_confstr");
