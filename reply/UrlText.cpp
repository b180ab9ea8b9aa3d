#include "reply/UrlText.h"

namespace {

constexpr std::size_t kMostCharacters = 2047;

// The value of a hexadecimal digit, or -1 for any other character.
int DigitValue(wchar_t c) {
  if (c >= L'0' && c <= L'9')
    return c - L'0';
  if (c >= L'a' && c <= L'f')
    return c - L'a' + 10;
  if (c >= L'A' && c <= L'F')
    return c - L'A' + 10;
  return -1;
}

// The number that the leading hexadecimal digits of the two characters form; 0 if the first is not a digit.
int PairValue(wchar_t first, wchar_t second) {
  int const nHigh = DigitValue(first);
  int const nLow = DigitValue(second);
  if (nHigh < 0)
    return 0;
  return nLow < 0 ? nHigh : nHigh * 16 + nLow;
}

} // namespace

std::wstring DecodeURLText(wchar_t const *wszText) {
  std::wstring strDecoded;
  for (; wszText && *wszText && strDecoded.size() < kMostCharacters; ++wszText) {
    wchar_t c = *wszText;
    if (c == L'%') {
      if (!wszText[1] || !wszText[2])
        break;
      c = static_cast<wchar_t>(PairValue(wszText[1], wszText[2]));
      wszText += 2;
      if (c == 0)
        break;
    }
    strDecoded += c;
  }
  return strDecoded;
}
