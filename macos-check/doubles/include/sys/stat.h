#pragma once
#include <stdint.h>
#include_next <sys/stat.h>
extern "C" int fchflags(int file, uint32_t flags);
