// See Utf8.h.
#include "platform/text/Utf8.h"

std::string Utf8FromWide(std::wstring_view text) {
  std::string bytes;
  bytes.reserve(text.size());
  WCHAR const *next = text.data();
  WCHAR const *const end = text.data() + text.size();
  while (next != end)
    EncodeUtf8(NextCharacter(next, end), [&](char byte) { bytes.push_back(byte); });
  return bytes;
}

std::wstring WideFromUtf8(std::string_view text, bool *isValid) {
  std::wstring wide;
  wide.reserve(text.size());
  bool const isAllValid = DecodeAll(text, [&](WCHAR unit) { wide.push_back(unit); });
  if (isValid)
    *isValid = isAllValid;
  return wide;
}
