// The bounded formatters, the number reader and the widening of CString. The wide formatter is a walker of our own: the
// C library's wide printf takes %s for narrow and fails on characters that the locale lacks. Any thread, no state.
#include "platform/text/Text.h"

#include "platform/text/AnsiText.h"

#include <charconv>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <limits>
#include <new>
#include <string_view>
#include <utility>

namespace {

/// Writes into a bounded buffer and notes whether something did not fit.
class BoundedText {
public:
  BoundedText(WCHAR *pText, std::size_t cch) : m_pText(pText), m_uRoom(cch - 1) {}

  void Put(WCHAR unit) {
    if (m_uLength == m_uRoom)
      m_bCut = true;
    else
      m_pText[m_uLength++] = unit;
  }
  void Put(std::wstring_view text) {
    for (std::size_t u = 0; u < text.size() && !m_bCut; ++u)
      Put(text[u]);
  }
  void Repeat(WCHAR unit, long long nTimes) {
    for (; nTimes > 0 && !m_bCut; --nTimes)
      Put(unit);
  }
  int Finish() {
    m_pText[m_uLength] = 0;
    return m_bCut || m_uLength > static_cast<std::size_t>(std::numeric_limits<int>::max())
               ? -1
               : static_cast<int>(m_uLength);
  }

private:
  WCHAR *m_pText;
  std::size_t m_uRoom;
  std::size_t m_uLength = 0;
  bool m_bCut = false;
};

enum class Size { plain, half, wide, widest };

/// One conversion of a format.
struct Conversion {
  bool bLeft = false;
  bool bPlus = false;
  bool bBlank = false;
  bool bZero = false;
  bool bPrefix = false;
  int nWidth = 0;
  int nPrecision = -1; // none
  Size size = Size::plain;
  WCHAR type = 0;
};

/// The arguments, passed on by reference.
struct Arguments {
  va_list list;
};

int ReadNumber(WCHAR const *&p, Arguments &arguments) {
  if (*p == L'*') {
    ++p;
    return va_arg(arguments.list, int);
  }
  int n = 0;
  for (; *p >= L'0' && *p <= L'9'; ++p)
    n = n < 100000 ? n * 10 + (*p - L'0') : n;
  return n;
}

bool ReadFlag(WCHAR unit, Conversion &conversion) {
  struct Flag {
    WCHAR unit;
    bool Conversion::*pMember;
  };
  static constexpr Flag kFlags[] = {{L'-', &Conversion::bLeft},
                                    {L'+', &Conversion::bPlus},
                                    {L' ', &Conversion::bBlank},
                                    {L'0', &Conversion::bZero},
                                    {L'#', &Conversion::bPrefix}};
  for (Flag const &flag : kFlags)
    if (flag.unit == unit) {
      conversion.*flag.pMember = true;
      return true;
    }
  return false;
}

/// Reads what follows the '%'; `p` ends behind the type's letter, or at the end of the format with type 0.
Conversion ReadConversion(WCHAR const *&p, Arguments &arguments) {
  Conversion conversion;
  while (ReadFlag(*p, conversion))
    ++p;
  conversion.nWidth = ReadNumber(p, arguments);
  if (conversion.nWidth < 0) {
    conversion.bLeft = true;
    conversion.nWidth = conversion.nWidth == std::numeric_limits<int>::min() ? 0 : -conversion.nWidth;
  }
  if (*p == L'.') {
    ++p;
    conversion.nPrecision = ReadNumber(p, arguments);
  }
  for (; *p == L'h' || *p == L'l'; ++p)
    conversion.size = *p == L'h' ? Size::half : conversion.size == Size::wide ? Size::widest : Size::wide;
  if (*p)
    conversion.type = *p++;
  return conversion;
}

void PutPadded(BoundedText &out, Conversion const &conversion, std::wstring_view text) {
  if (conversion.nPrecision >= 0)
    text = text.substr(0, static_cast<std::size_t>(conversion.nPrecision));
  long long const nPad = conversion.nWidth - static_cast<long long>(text.size());
  out.Repeat(L' ', conversion.bLeft ? 0 : nPad);
  out.Put(text);
  out.Repeat(L' ', conversion.bLeft ? nPad : 0);
}

void PutString(BoundedText &out, Conversion const &conversion, Arguments &arguments) {
  bool const bNarrow = conversion.size == Size::half || (conversion.type == L'S' && conversion.size == Size::plain);
  if (bNarrow) {
    char const *const szText = va_arg(arguments.list, char const *);
    PutPadded(out, conversion, WideFromAnsi(szText ? szText : "(null)"));
  } else {
    WCHAR const *const wszText = va_arg(arguments.list, WCHAR const *);
    std::size_t const uLimit = static_cast<std::size_t>(conversion.nPrecision); // none: no limit
    PutPadded(out, conversion, wszText ? std::wstring_view(wszText, wcsnlen(wszText, uLimit)) : L"(null)");
  }
}

long long SignedArgument(Size size, Arguments &arguments) {
  if (size == Size::widest)
    return va_arg(arguments.list, long long);
  return size == Size::wide ? va_arg(arguments.list, long) : va_arg(arguments.list, int);
}

unsigned long long UnsignedArgument(Size size, Arguments &arguments) {
  if (size == Size::widest)
    return va_arg(arguments.list, unsigned long long);
  return size == Size::wide ? va_arg(arguments.list, unsigned long) : va_arg(arguments.list, unsigned);
}

void PutInteger(BoundedText &out, Conversion const &conversion, Arguments &arguments) {
  bool const bSigned = conversion.type == L'd' || conversion.type == L'i';
  bool const bHex = conversion.type == L'x' || conversion.type == L'X';
  unsigned long long uValue;
  std::wstring_view prefix;
  if (bSigned) {
    long long const nValue = SignedArgument(conversion.size, arguments);
    uValue = nValue < 0 ? 0 - static_cast<unsigned long long>(nValue) : static_cast<unsigned long long>(nValue);
    prefix = nValue < 0 ? L"-" : conversion.bPlus ? L"+" : conversion.bBlank ? L" " : L"";
  } else {
    uValue = UnsignedArgument(conversion.size, arguments);
    if (bHex && conversion.bPrefix && uValue != 0)
      prefix = conversion.type == L'x' ? L"0x" : L"0X";
  }
  char digits[32];
  char *const pEnd = std::to_chars(digits, digits + sizeof digits, uValue, bHex ? 16 : 10).ptr;
  long long const nDigits = conversion.nPrecision == 0 && uValue == 0 ? 0 : pEnd - digits;
  long long nZeros = conversion.nPrecision > nDigits ? conversion.nPrecision - nDigits : 0;
  long long nPad = conversion.nWidth - nDigits - nZeros - static_cast<long long>(prefix.size());
  if (conversion.bZero && !conversion.bLeft && conversion.nPrecision < 0 && nPad > 0)
    nZeros += std::exchange(nPad, 0);
  out.Repeat(L' ', conversion.bLeft ? 0 : nPad);
  out.Put(prefix);
  out.Repeat(L'0', nZeros);
  for (char const *p = digits; p != digits + nDigits; ++p)
    out.Put(static_cast<WCHAR>(conversion.type == L'X' && *p >= 'a' ? *p - 'a' + 'A' : *p));
  out.Repeat(L' ', conversion.bLeft ? nPad : 0);
}

void PutConversion(BoundedText &out, Conversion conversion, Arguments &arguments) {
  switch (conversion.type) {
  case L's':
  case L'S':
    return PutString(out, conversion, arguments);
  case L'd':
  case L'i':
  case L'u':
  case L'x':
  case L'X':
    return PutInteger(out, conversion, arguments);
  case L'c': {
    WCHAR const unit = static_cast<WCHAR>(va_arg(arguments.list, int));
    conversion.nPrecision = -1;
    return PutPadded(out, conversion, {&unit, 1});
  }
  case 0:
    return;
  default: // "%%", and any other letter for itself
    return out.Put(conversion.type);
  }
}

void Walk(BoundedText &out, WCHAR const *wszFormat, Arguments &arguments) {
  for (WCHAR const *p = wszFormat; *p;) {
    if (*p != L'%') {
      out.Put(*p++);
      continue;
    }
    ++p;
    Conversion const conversion = ReadConversion(p, arguments);
    PutConversion(out, conversion, arguments);
  }
}

} // namespace

int _vsnprintf_s(char *szBuffer, std::size_t cbBuffer, std::size_t /*uCount*/, char const *szFormat, va_list args) {
  if (!szBuffer || cbBuffer == 0)
    return -1;
  szBuffer[0] = 0;
  int const nLength = std::vsnprintf(szBuffer, cbBuffer, szFormat, args);
  return nLength >= 0 && static_cast<std::size_t>(nLength) < cbBuffer ? nLength : -1;
}

int _vsnwprintf_s(WCHAR *wszBuffer, std::size_t cchBuffer, std::size_t /*uCount*/, WCHAR const *wszFormat,
                  va_list args) {
  if (!wszBuffer || cchBuffer == 0)
    return -1;
  BoundedText out(wszBuffer, cchBuffer);
  Arguments arguments;
  va_copy(arguments.list, args);
  bool bDone = true;
  try {
    Walk(out, wszFormat, arguments);
  } catch (std::bad_alloc const &) { // widening a narrow string
    bDone = false;
  }
  va_end(arguments.list);
  int const nLength = out.Finish();
  return bDone ? nLength : -1;
}

int _snprintf_s(char *szBuffer, std::size_t cbBuffer, std::size_t uCount, char const *szFormat, ...) {
  va_list args;
  va_start(args, szFormat);
  int const nLength = _vsnprintf_s(szBuffer, cbBuffer, uCount, szFormat, args);
  va_end(args);
  return nLength;
}

int _snwprintf_s(WCHAR *wszBuffer, std::size_t cchBuffer, std::size_t uCount, WCHAR const *wszFormat, ...) {
  va_list args;
  va_start(args, wszFormat);
  int const nLength = _vsnwprintf_s(wszBuffer, cchBuffer, uCount, wszFormat, args);
  va_end(args);
  return nLength;
}

int _wtoi(WCHAR const *wszText) {
  constexpr std::wstring_view kBlanks = L" \t\n\v\f\r\u00A0";
  if (!wszText)
    return 0;
  WCHAR const *p = wszText;
  while (*p && kBlanks.find(*p) != std::wstring_view::npos)
    ++p;
  bool const bNegative = *p == L'-';
  if (*p == L'-' || *p == L'+')
    ++p;
  long long const nLimit = bNegative ? -static_cast<long long>(std::numeric_limits<int>::min())
                                     : static_cast<long long>(std::numeric_limits<int>::max());
  long long n = 0;
  for (; *p >= L'0' && *p <= L'9' && n < nLimit; ++p)
    n = n * 10 + (*p - L'0');
  n = n < nLimit ? n : nLimit;
  return static_cast<int>(bNegative ? -n : n);
}

int MulDiv(int nNumber, int nNumerator, int nDenominator) {
  if (nDenominator == 0)
    return -1;
  long long const nProduct = static_cast<long long>(nNumber) * nNumerator;
  long long const nDivisor = nDenominator;
  long long const nHalf = (nDivisor < 0 ? -nDivisor : nDivisor) / 2;
  long long const nResult = (nProduct < 0 ? nProduct - nHalf : nProduct + nHalf) / nDivisor;
  bool const bFits = nResult >= std::numeric_limits<int>::min() && nResult <= std::numeric_limits<int>::max();
  return bFits ? static_cast<int>(nResult) : -1;
}
