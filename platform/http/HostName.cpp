// See HostName.h. libcurl maps the name, as it would later: both then agree.
#include "platform/http/HostName.h"

#include <algorithm>
#include <memory>
#include <new>

#include <curl/curl.h>

namespace {

bool IsAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

bool IsHost(std::string_view text) {
  bool const hasControl = std::any_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; });
  return !text.empty() && !hasControl && text.find_first_of("/?#@\\% ") == text.npos;
}

/// The ASCII form; empty if there is none.
std::string AsciiForm(std::string const &host) {
  std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> const url(curl_url(), curl_url_cleanup);
  if (!url)
    throw std::bad_alloc();
  char *text = nullptr;
  if (curl_url_set(url.get(), CURLUPART_URL, ("http://" + host).c_str(), 0) != CURLUE_OK ||
      curl_url_get(url.get(), CURLUPART_HOST, &text, CURLU_PUNYCODE) != CURLUE_OK)
    return {};
  std::unique_ptr<char, decltype(&curl_free)> const owner(text, curl_free);
  return text;
}

} // namespace

bool ToWireHost(std::string &host) {
  if (!IsHost(host))
    return false;
  if (IsAscii(host))
    return true;
  std::string ascii = AsciiForm(host);
  if (!IsAscii(ascii) || !IsHost(ascii))
    return false;
  host.swap(ascii);
  return true;
}
