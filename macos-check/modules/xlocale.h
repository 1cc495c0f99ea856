// Declares what a locale can be named for, for the C headers that were included before it. A module's header sees none but its own.
#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <wchar.h>
#include <wctype.h>
#include_next <xlocale.h>
