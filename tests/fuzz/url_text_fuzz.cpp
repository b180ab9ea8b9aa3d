// The percent decoder.
#include "reply/UrlText.h"
#include "tests/fuzz/fuzz.h"

FUZZ_TARGET(input) {
  std::wstring const text = input.Wide((input.Byte() & 1) != 0);
  std::wstring_view const given = text.c_str();
  std::wstring const decoded = DecodeURLText(Exact<wchar_t>(given, 1).units.get());
  Require(decoded.size() <= std::min<std::size_t>(given.size(), 2047), "a decoded text is bounded");
  Require(decoded.find(L'\0') == decoded.npos, "a decoded text holds no zero");
  Require(decoded.starts_with(given.substr(0, given.find(L'%')).substr(0, 2047)), "what precedes an escape stays");
  std::wstring encoded;
  for (wchar_t const c : decoded) {
    wchar_t const escape[] = {L'%', L"0123456789abcdef"[c >> 4 & 15], L"0123456789ABCDEF"[c & 15], 0};
    encoded += c > 0 && c < 256 ? escape : std::wstring(1, c);
  }
  Require(DecodeURLText(Exact<wchar_t>(encoded, 1).units.get()) == decoded, "an encoded text decodes to itself");
}
