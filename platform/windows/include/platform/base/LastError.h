// See Types.h: the last error, with the numbers of the HTTP interface.
#pragma once

#include "platform/http/InternetStatus.h"

#ifndef ERROR_INTERNET_DECODING_FAILED
#define ERROR_INTERNET_DECODING_FAILED 12175 // missing from mingw-w64
#endif
