#pragma once

#include <stdint.h>
#include <time.h>

struct kevent {
  uintptr_t ident;
  int16_t filter;
  uint16_t flags;
  uint32_t fflags;
  intptr_t data;
  void* udata;
};
#define EVFILT_PROC (-5)
#define EV_ADD 0x1
#define EV_ONESHOT 0x10
#define NOTE_EXIT 0x80000000
#define EV_SET(p, a, b, c, d, e, f) (*(p) = {(a), (b), (c), (d), (e), (f)})

extern "C" {
int kqueue();
int kevent(int queue, const struct kevent* changes, int count, struct kevent* events, int room,
           const struct timespec* wait);
}
