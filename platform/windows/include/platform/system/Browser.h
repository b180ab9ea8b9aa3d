// See Types.h: ShellExecuteW.
#pragma once

#include "platform/base/Types.h"

#include <shellapi.h>
