// See Types.h: locks.
#pragma once

#include "platform/base/Types.h"
