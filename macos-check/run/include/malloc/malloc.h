#pragma once
#include <stddef.h>
struct malloc_zone_t;
extern "C" size_t malloc_zone_pressure_relief(struct malloc_zone_t* zone, size_t goal);
