// See Types.h: the registry.
#pragma once

#include "platform/base/Types.h"
