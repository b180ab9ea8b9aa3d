// See Utf8.h.
#include "platform/text/Utf8.h"

std::string Utf8FromWide(std::wstring_view text) {
  std::size_t const uAscii = AsciiPrefix(text);
  std::string bytes(uAscii, '\0');
  CopyAscii(text.substr(0, uAscii), bytes.data());
  WCHAR const *p = text.data() + uAscii;
  WCHAR const *const pEnd = text.data() + text.size();
  while (p != pEnd)
    EncodeUtf8(NextCharacter(p, pEnd), [&](char byte) { bytes.push_back(byte); });
  return bytes;
}

std::wstring WideFromUtf8(std::string_view text, bool *pbValid) {
  std::wstring wide;
  wide.reserve(text.size());
  bool const bValid = DecodeAll(text, [&](WCHAR unit) { wide.push_back(unit); });
  if (pbValid)
    *pbValid = bValid;
  return wide;
}
