#pragma once
#include_next <poll.h>
extern "C" int poll(struct pollfd* descriptors, nfds_t count,
                    int milliseconds) __asm__("darwin_poll");
