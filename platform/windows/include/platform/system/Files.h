// See Types.h: files.
#pragma once

#include "platform/base/Types.h"

#include <shlwapi.h>
