// What unwinds a thread's frames while the thread is being ended from inside a call (pthread_exit or a cancellation).
#pragma once

#include <cxxabi.h>

/// A handler that catches everything else must rethrow this: the C library ends the process otherwise.
using ForcedUnwind = abi::__forced_unwind;
