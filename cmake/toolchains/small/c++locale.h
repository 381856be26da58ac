// Stands before the compiler's header of this name: gives the locale type the name that it expects.
#pragma GCC system_header

#include <features.h>

#include <clocale>

#ifndef __UCLIBC__
typedef locale_t __locale_t;
#elif !defined(__UCLIBC_HAS_XLOCALE__)
// Enough to parse the headers; there is nothing that code which uses it would link with.
typedef struct small_no_locale* __locale_t;
#endif

#include_next <bits/c++locale.h>
