#pragma once
// What the C++ library's Darwin branch expects here and the C library of the check has not.
#include <locale.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <wchar.h>
typedef uint32_t __uint32_t;
enum {
  _CTYPE_A = 0x100, _CTYPE_C = 0x200, _CTYPE_D = 0x400, _CTYPE_L = 0x1000, _CTYPE_P = 0x2000,
  _CTYPE_S = 0x4000, _CTYPE_U = 0x8000, _CTYPE_X = 0x10000, _CTYPE_B = 0x20000, _CTYPE_R = 0x40000
};
extern "C" {
long long strtoll_l(const char*, char**, int, locale_t);
unsigned long long strtoull_l(const char*, char**, int, locale_t);
int sscanf_l(const char*, locale_t, const char*, ...);
int snprintf_l(char*, size_t, locale_t, const char*, ...);
int asprintf_l(char**, locale_t, const char*, ...);
}
