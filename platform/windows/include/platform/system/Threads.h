// See Types.h: threads.
#pragma once

#include "platform/base/Types.h"

#include <process.h>
