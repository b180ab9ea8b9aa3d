// See Types.h: the bounded text functions of the run-time library.
#pragma once

#include "platform/base/Types.h"

#include <cstdarg>
#include <cstdio>
#include <cwchar>
