// See Types.h: debug output, and what functions found at run time are declared with.
#pragma once

#include "platform/base/Types.h"

#include <evntprov.h>
