// What LLVM's C++ library takes from Windows's C library and Wine's headers of it lack.
#pragma once

#include <ctype.h>
#include <math.h>
#include <stdlib.h>
#include <time.h>

#define MB_CUR_MAX 2

struct timespec {
  time_t tv_sec;
  long tv_nsec;
};

inline bool isinf(double value) { return __builtin_isinf(value); }
inline bool isnan(double value) { return __builtin_isnan(value); }

extern "C" {
int _islower_l(int character, _locale_t locale);
int _isupper_l(int character, _locale_t locale);
double _strtod_l(char const *text, char **end, _locale_t locale);
float _strtof_l(char const *text, char **end, _locale_t locale);
}
