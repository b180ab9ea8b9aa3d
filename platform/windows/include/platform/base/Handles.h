// See Types.h: CloseHandle and DuplicateHandle.
#pragma once

#include "platform/base/Types.h"
