// See Types.h: GetTickCount and Sleep.
#pragma once

#include "platform/base/Types.h"
