// See Types.h: the XML document object model and COM.
#pragma once

#include "platform/base/Types.h"

#include <msxml.h>
#include <oleauto.h>
