#pragma once
#include_next <signal.h>
// Macros there, so that no qualified name finds them.
#undef sigemptyset
#undef sigfillset
#undef sigaddset
#undef sigdelset
#define sigemptyset(set) (*(set) = sigset_t(), 0)
#define sigfillset(set) (*(set) = sigset_t(), 0)
#define sigaddset(set, signal) ((void)(signal), (void)(set), 0)
#define sigdelset(set, signal) ((void)(signal), (void)(set), 0)
