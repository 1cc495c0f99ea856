// The system's header declares the variants that take a locale for those C headers only that were included before it. In a module
// none were.
#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <wchar.h>
#include <wctype.h>
#include_next <xlocale.h>
