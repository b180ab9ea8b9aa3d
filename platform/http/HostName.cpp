// libcurl would map the name itself, with the same library, but would not check the result.
#include "platform/http/HostName.h"

#include "platform/http/HttpText.h"
#include "platform/text/AnsiText.h"
#include "platform/text/Utf8.h"

#include <algorithm>
#include <memory>
#include <new>

#include <idn2.h>

namespace {

bool IsAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

bool IsHost(std::string_view text) { return !text.empty() && text.find_first_of("/?#@\\% ") == text.npos; }

/// The ASCII form (RFC 5891, mapped as UTS 46 says); empty if there is none. May throw std::bad_alloc.
std::string AsciiForm(std::string const &host) {
  char *text = nullptr;
  std::string const utf8 = Utf8FromWide(WideFromAnsi(host)); // libidn2 would not take the plain C locale for UTF-8
  int result = idn2_to_ascii_8z(utf8.c_str(), &text, IDN2_NFC_INPUT | IDN2_NONTRANSITIONAL);
  if (result != IDN2_OK && result != IDN2_MALLOC)
    result = idn2_to_ascii_8z(utf8.c_str(), &text, IDN2_TRANSITIONAL); // as libcurl does
  std::unique_ptr<char, decltype(&idn2_free)> const owner(text, idn2_free);
  if (result == IDN2_MALLOC)
    throw std::bad_alloc();
  return result == IDN2_OK ? text : "";
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
