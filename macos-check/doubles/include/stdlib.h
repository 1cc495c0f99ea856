#pragma once
#include <stdint.h>
#include_next <stdlib.h>
extern "C" char* devname_r(int32_t device, unsigned type, char* buffer, int size);
