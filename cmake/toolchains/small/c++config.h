// Included instead of the compiler's header of the same name, which was configured for glibc.
// Includes that header, and then undefines the macros of functions that a small C library lacks.
#pragma GCC system_header
#ifndef SMALL_CXXCONFIG_H
#define SMALL_CXXCONFIG_H

#include <features.h>

#ifndef __GLIBC_PREREQ
#define __GLIBC_PREREQ(major, minor) 0
#endif

#include_next <bits/c++config.h>

#undef _GLIBCXX_USE_PTHREAD_COND_CLOCKWAIT
#undef _GLIBCXX_USE_PTHREAD_MUTEX_CLOCKLOCK
#undef _GLIBCXX_USE_PTHREAD_RWLOCK_CLOCKLOCK
#ifdef __UCLIBC__
#undef _GLIBCXX_HAVE_AT_QUICK_EXIT
#undef _GLIBCXX_HAVE_QUICK_EXIT
#undef _GLIBCXX_HAVE_TIMESPEC_GET
#undef _GLIBCXX_USE_TMPNAM
#endif

#endif  // SMALL_CXXCONFIG_H
