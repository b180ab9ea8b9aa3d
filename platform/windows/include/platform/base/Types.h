// Windows's own types. What stands in this folder comes before platform/ in the include path of the native
// build, under the same names: each header hands on the original ones.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib> // _MAX_PATH

#include <windows.h>

/// Nothing is exported but the module's entry.
#define SKIFFPORT_PLATFORM_API
