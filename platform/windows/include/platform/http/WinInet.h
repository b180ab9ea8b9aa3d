// See Types.h: the HTTP client interface. The status callback is set through a function that makes its text wide.
#pragma once

#include "platform/http/InternetStatus.h"

#define InternetSetStatusCallbackW SetWideStatusCallback
