// The bounded formatters and the two number functions. The wide formatter is our own: the C library's wide printf takes
// %s as narrow and fails on characters that the locale lacks. Any thread; keeps no state.
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

/// Writes into a bounded buffer, at least one unit long, and notes whether something did not fit.
class BoundedText {
public:
  BoundedText(WCHAR *text, std::size_t capacity) : m_text(text), m_room(capacity - 1) {}

  void Put(WCHAR unit) {
    if (m_length == m_room)
      m_isCut = true;
    else
      m_text[m_length++] = unit;
  }
  void Put(std::wstring_view text) {
    for (std::size_t index = 0; index < text.size() && !m_isCut; ++index)
      Put(text[index]);
  }
  void Repeat(WCHAR unit, long long times) {
    for (; times > 0 && !m_isCut; --times)
      Put(unit);
  }
  int Finish() {
    m_text[m_length] = 0;
    return m_isCut || m_length > static_cast<std::size_t>(std::numeric_limits<int>::max()) ? -1
                                                                                           : static_cast<int>(m_length);
  }

private:
  WCHAR *m_text;
  std::size_t m_room;
  std::size_t m_length = 0;
  bool m_isCut = false;
};

enum class Size { plain, half, wide, widest };

/// One conversion of a format, from its "%" to its type.
struct Conversion {
  bool isLeft = false;
  bool hasPlus = false;
  bool hasBlank = false;
  bool hasZeros = false;
  bool hasPrefix = false;
  int width = 0;
  int precision = -1; // negative: none
  Size size = Size::plain;
  WCHAR type = 0;
};

/// The arguments in a struct: a va_list can't portably be passed by reference.
struct Arguments {
  va_list list;
};

int ReadNumber(WCHAR const *&next, Arguments &arguments) {
  if (*next == L'*') {
    ++next;
    return va_arg(arguments.list, int);
  }
  int value = 0;
  for (; *next >= L'0' && *next <= L'9'; ++next)
    value = value < 100000 ? value * 10 + (*next - L'0') : value;
  return value;
}

bool ReadFlag(WCHAR unit, Conversion &conversion) {
  struct Flag {
    WCHAR unit;
    bool Conversion::*member;
  };
  static constexpr Flag kFlags[] = {{L'-', &Conversion::isLeft},
                                    {L'+', &Conversion::hasPlus},
                                    {L' ', &Conversion::hasBlank},
                                    {L'0', &Conversion::hasZeros},
                                    {L'#', &Conversion::hasPrefix}};
  for (Flag const &flag : kFlags)
    if (flag.unit == unit) {
      conversion.*flag.member = true;
      return true;
    }
  return false;
}

/// Reads what follows the '%'; `next` then points after the type's letter, or at the end of the format, with type 0.
Conversion ReadConversion(WCHAR const *&next, Arguments &arguments) {
  Conversion conversion;
  while (ReadFlag(*next, conversion))
    ++next;
  conversion.width = ReadNumber(next, arguments);
  if (conversion.width < 0) {
    conversion.isLeft = true;
    conversion.width = conversion.width == std::numeric_limits<int>::min() ? 0 : -conversion.width;
  }
  if (*next == L'.') {
    ++next;
    conversion.precision = ReadNumber(next, arguments);
  }
  for (; *next == L'h' || *next == L'l'; ++next)
    if (*next == L'h')
      conversion.size = Size::half;
    else
      conversion.size = conversion.size == Size::wide ? Size::widest : Size::wide; // "ll" or "l"
  if (*next)
    conversion.type = *next++;
  return conversion;
}

void PutPadded(BoundedText &out, Conversion const &conversion, std::wstring_view text) {
  if (conversion.precision >= 0)
    text = text.substr(0, static_cast<std::size_t>(conversion.precision));
  long long const padding = conversion.width - static_cast<long long>(text.size());
  out.Repeat(L' ', conversion.isLeft ? 0 : padding);
  out.Put(text);
  out.Repeat(L' ', conversion.isLeft ? padding : 0);
}

void PutString(BoundedText &out, Conversion const &conversion, Arguments &arguments) {
  bool const isNarrow = conversion.size == Size::half || (conversion.type == L'S' && conversion.size == Size::plain);
  if (isNarrow) {
    char const *const narrow = va_arg(arguments.list, char const *);
    PutPadded(out, conversion, WideFromAnsi(narrow ? narrow : "(null)"));
  } else {
    WCHAR const *const wide = va_arg(arguments.list, WCHAR const *);
    std::size_t const limit =
        conversion.precision < 0 ? std::wstring_view::npos : static_cast<std::size_t>(conversion.precision);
    PutPadded(out, conversion, wide ? std::wstring_view(wide, wcsnlen(wide, limit)) : L"(null)");
  }
}

long long SignedArgument(Size size, Arguments &arguments) {
  if (size == Size::widest)
    return va_arg(arguments.list, long long);
  if (size == Size::wide)
    return va_arg(arguments.list, long);
  int const value = va_arg(arguments.list, int);
  return size == Size::half ? static_cast<short>(value) : value;
}

unsigned long long UnsignedArgument(Size size, Arguments &arguments) {
  if (size == Size::widest)
    return va_arg(arguments.list, unsigned long long);
  if (size == Size::wide)
    return va_arg(arguments.list, unsigned long);
  unsigned const value = va_arg(arguments.list, unsigned);
  return size == Size::half ? static_cast<unsigned short>(value) : value;
}

void PutInteger(BoundedText &out, Conversion const &conversion, Arguments &arguments) {
  bool const isSigned = conversion.type == L'd' || conversion.type == L'i';
  bool const isHex = conversion.type == L'x' || conversion.type == L'X';
  unsigned long long magnitude;
  std::wstring_view prefix;
  if (isSigned) {
    long long const value = SignedArgument(conversion.size, arguments);
    magnitude = value < 0 ? 0 - static_cast<unsigned long long>(value) : static_cast<unsigned long long>(value);
    prefix = value < 0 ? L"-" : conversion.hasPlus ? L"+" : conversion.hasBlank ? L" " : L"";
  } else {
    magnitude = UnsignedArgument(conversion.size, arguments);
    if (isHex && conversion.hasPrefix && magnitude != 0)
      prefix = conversion.type == L'x' ? L"0x" : L"0X";
  }
  char digits[32];
  char *const end = std::to_chars(digits, digits + sizeof digits, magnitude, isHex ? 16 : 10).ptr;
  long long const digitCount = conversion.precision == 0 && magnitude == 0 ? 0 : end - digits;
  long long zeros = conversion.precision > digitCount ? conversion.precision - digitCount : 0;
  long long padding = conversion.width - digitCount - zeros - static_cast<long long>(prefix.size());
  if (conversion.hasZeros && !conversion.isLeft && conversion.precision < 0 && padding > 0)
    zeros += std::exchange(padding, 0);
  out.Repeat(L' ', conversion.isLeft ? 0 : padding);
  out.Put(prefix);
  out.Repeat(L'0', zeros);
  for (char const *next = digits; next != digits + digitCount; ++next)
    out.Put(static_cast<WCHAR>(conversion.type == L'X' && *next >= 'a' ? *next - 'a' + 'A' : *next));
  out.Repeat(L' ', conversion.isLeft ? padding : 0);
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
    conversion.precision = -1;
    return PutPadded(out, conversion, {&unit, 1});
  }
  case 0:
    return;
  default: // "%%"; any other letter prints itself, too
    return out.Put(conversion.type);
  }
}

void Walk(BoundedText &out, WCHAR const *format, Arguments &arguments) {
  for (WCHAR const *next = format; *next;) {
    if (*next != L'%') {
      out.Put(*next++);
      continue;
    }
    ++next;
    Conversion const conversion = ReadConversion(next, arguments);
    PutConversion(out, conversion, arguments);
  }
}

} // namespace

int _vsnprintf_s(char *szBuffer, std::size_t cbBuffer, std::size_t /*uCount*/, char const *szFormat, va_list args) {
  if (!szBuffer || cbBuffer == 0)
    return -1;
  szBuffer[0] = 0;
  int const length = std::vsnprintf(szBuffer, cbBuffer, szFormat, args);
  return length >= 0 && static_cast<std::size_t>(length) < cbBuffer ? length : -1;
}

int _vsnwprintf_s(WCHAR *wszBuffer, std::size_t cchBuffer, std::size_t /*uCount*/, WCHAR const *wszFormat,
                  va_list args) {
  if (!wszBuffer || cchBuffer == 0)
    return -1;
  BoundedText out(wszBuffer, cchBuffer);
  Arguments arguments;
  va_copy(arguments.list, args);
  bool isComplete = true;
  try {
    Walk(out, wszFormat, arguments);
  } catch (std::bad_alloc const &) { // widening a narrow string
    isComplete = false;
  }
  va_end(arguments.list);
  int const length = out.Finish();
  return isComplete ? length : -1;
}

int _snprintf_s(char *szBuffer, std::size_t cbBuffer, std::size_t uCount, char const *szFormat, ...) {
  va_list args;
  va_start(args, szFormat);
  int const length = _vsnprintf_s(szBuffer, cbBuffer, uCount, szFormat, args);
  va_end(args);
  return length;
}

int _snwprintf_s(WCHAR *wszBuffer, std::size_t cchBuffer, std::size_t uCount, WCHAR const *wszFormat, ...) {
  va_list args;
  va_start(args, wszFormat);
  int const length = _vsnwprintf_s(wszBuffer, cchBuffer, uCount, wszFormat, args);
  va_end(args);
  return length;
}

int _wtoi(WCHAR const *wszText) {
  constexpr std::wstring_view kBlanks = L" \t\n\v\f\r\u00A0";
  if (!wszText)
    return 0;
  WCHAR const *next = wszText;
  while (*next && kBlanks.find(*next) != std::wstring_view::npos)
    ++next;
  bool const isNegative = *next == L'-';
  if (*next == L'-' || *next == L'+')
    ++next;
  long long const limit = isNegative ? -static_cast<long long>(std::numeric_limits<int>::min())
                                     : static_cast<long long>(std::numeric_limits<int>::max());
  long long value = 0;
  for (; *next >= L'0' && *next <= L'9' && value < limit; ++next)
    value = value * 10 + (*next - L'0');
  value = value < limit ? value : limit;
  return static_cast<int>(isNegative ? -value : value);
}

int MulDiv(int nNumber, int nNumerator, int nDenominator) {
  if (nDenominator == 0)
    return -1;
  long long const product = static_cast<long long>(nNumber) * nNumerator;
  long long const divisor = nDenominator;
  long long const half = (divisor < 0 ? -divisor : divisor) / 2;
  long long const result = (product < 0 ? product - half : product + half) / divisor;
  bool const hasRoom = result >= std::numeric_limits<int>::min() && result <= std::numeric_limits<int>::max();
  return hasRoom ? static_cast<int>(result) : -1;
}
