#pragma once

#include <cstdio>
#include <cstdlib>

/// Ends the process, which libFuzzer reports with the input, when a property does not hold.
#define REQUIRE(property)                                                         \
  do {                                                                            \
    if (!(property)) {                                                            \
      std::fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #property); \
      std::abort();                                                               \
    }                                                                             \
  } while (false)
