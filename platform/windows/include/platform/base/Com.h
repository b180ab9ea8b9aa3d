// See Types.h: CoInitialize and CoUninitialize.
#pragma once

#include "platform/base/Types.h"

#include <objbase.h>
