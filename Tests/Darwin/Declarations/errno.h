#pragma once
#include_next <errno.h>
#ifdef __cplusplus
extern "C"
#endif
int* __error(void);
#undef errno
#define errno (*__error())
