#pragma once

#include <sys/proc_info.h>

extern "C" {
int proc_listpids(uint32_t type, uint32_t typeinfo, void* buffer, int buffersize);
int proc_pidinfo(int pid, int flavor, uint64_t arg, void* buffer, int buffersize);
int proc_pidfdinfo(int pid, int fd, int flavor, void* buffer, int buffersize);
int proc_name(int pid, void* buffer, uint32_t buffersize);
}
