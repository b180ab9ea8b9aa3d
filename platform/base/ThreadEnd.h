// What passes through a thread's frames while the thread is being ended from inside a call.
#pragma once

#include <cxxabi.h>

/// A handler that lets nothing else escape rethrows it: the C library ends the process otherwise.
using ThreadEnd = abi::__forced_unwind;
