// What the headers of CPython must know of 64-bit Windows, for headers that come from an installation for another
// system. The headers of a CPython for Windows have a file of their own instead of this one.
#pragma once

#define MS_WINDOWS
#define MS_WIN32
#ifndef MS_WIN64
#define MS_WIN64
#endif
#define NT_THREADS
#define WITH_THREAD 1

#define SIZEOF_SHORT 2
#define SIZEOF_INT 4
#define SIZEOF_LONG 4
#define SIZEOF_LONG_LONG 8
#define SIZEOF_FLOAT 4
#define SIZEOF_DOUBLE 8
#define SIZEOF_VOID_P 8
#define SIZEOF_SIZE_T 8
#define SIZEOF_TIME_T 8
#define SIZEOF_PID_T 4
#define SIZEOF_WCHAR_T 2

#define Py_ENABLE_SHARED 1
#define HAVE_DECLSPEC_DLL 1

#define HAVE_ERRNO_H 1
#define HAVE_LONG_LONG 1
#define HAVE_STDARG_PROTOTYPES 1
#define HAVE_STDDEF_H 1
#define HAVE_SYS_STAT_H 1
#define HAVE_SYS_TYPES_H 1
#define HAVE_WCHAR_H 1
#define STDC_HEADERS 1
