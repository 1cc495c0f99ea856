#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#define CTL_KERN 1
#define KERN_PROC 14
#define KERN_PROC_ALL 0
#define KERN_PROC_PID 1

struct darwin_timeval {
  int64_t tv_sec;
  int32_t tv_usec;
};

// The named fields stand where Darwin has them; KernelLayout.h holds both against each
// other.
struct kinfo_proc {
  struct {
    darwin_timeval p_starttime;
    uint8_t more[24];
    int32_t p_pid;
    uint8_t others[199];
    char p_comm[17];
    uint8_t rest[36];
  } kp_proc;
  struct {
    uint8_t before[96];
    struct {
      uint32_t p_ruid;
    } e_pcred;
    uint8_t between[24];
    struct {
      uint32_t cr_uid;
    } e_ucred;
    uint8_t others[136];
    int32_t e_ppid;
    uint8_t more[8];
    int32_t e_tdev;
    uint8_t rest[72];
  } kp_eproc;
};

extern "C" int sysctl(int* name, unsigned count, void* old, size_t* oldSize, void* fresh,
                      size_t freshSize);

// Darwin's own are narrower than this system's.
#define timeval darwin_timeval
#define dev_t int32_t
