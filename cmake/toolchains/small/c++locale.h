// Included instead of the compiler's header of the same name. Defines the locale type under the
// name that this header expects, and then includes the header.
#pragma GCC system_header

#include <features.h>

#include <clocale>

#ifndef __UCLIBC__
typedef locale_t __locale_t;
#elif !defined(__UCLIBC_HAS_XLOCALE__)
// Sufficient to parse the headers. Code that uses locales does not link, since the functions do not
// exist.
typedef struct small_no_locale* __locale_t;
#endif

#include_next <bits/c++locale.h>
