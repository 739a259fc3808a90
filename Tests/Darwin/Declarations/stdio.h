#pragma once
#include_next <stdio.h>
// The streams are macros there, and of these names.
#ifdef __cplusplus
extern "C" {
#endif
extern FILE *__stdinp, *__stdoutp, *__stderrp;
#ifdef __cplusplus
}
#endif
#undef stdin
#undef stdout
#undef stderr
#define stdin __stdinp
#define stdout __stdoutp
#define stderr __stderrp
