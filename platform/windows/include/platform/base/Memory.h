// See Types.h: SecureZeroMemory.
#pragma once

#include "platform/base/Types.h"
