#pragma once
#include <stdint.h>
#ifdef __cplusplus
extern "C"
#endif
int proc_pidpath(int pid, void* buffer, uint32_t size);
