// Splits an absolute URL into views of its text (RFC 3986, sections 3.1 to 3.3). Pure text work, any thread.
#pragma once

#include "platform/http/WinInet.h"

#include <string_view>

struct UrlParts {
  std::string_view scheme, user, password, host, path, extra; ///< `extra`: query and fragment, with "?" or "#"
  INTERNET_SCHEME schemeNumber = INTERNET_SCHEME_UNKNOWN;
  INTERNET_PORT port = 0; ///< the scheme's own where the URL names none
};

/// Returns: an error number, 0 for none; see InternetCrackUrlA. Cannot fail otherwise.
DWORD SplitUrl(std::string_view url, UrlParts &parts);
