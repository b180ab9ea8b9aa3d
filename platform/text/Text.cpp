// The bounded formatters and the two number functions. The wide formatter is our own: for the C library's, %s is
// narrow, and a text that does not fit is an error instead of a cut text. Any thread; keeps no state.
#include "platform/text/Text.h"

#include "platform/text/AnsiText.h"

#include <charconv>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <limits>
#include <new>
#include <string_view>

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
  int Finish() {
    m_text[m_length] = 0;
    return m_isCut ? -1 : static_cast<int>(m_length);
  }

private:
  WCHAR *m_text;
  std::size_t m_room;
  std::size_t m_length = 0;
  bool m_isCut = false;
};

/// The arguments in a struct: a va_list can't portably be passed by reference.
struct Arguments {
  va_list list;
};

template <class Number> void PutNumber(BoundedText &out, Number number, int base) {
  char digits[16];
  char *const end = std::to_chars(digits, digits + sizeof digits, number, base).ptr;
  for (char const *next = digits; next != end; ++next)
    out.Put(static_cast<WCHAR>(*next));
}

/// Writes the argument of one conversion, by its letter; any other letter, as in "%%", prints itself.
void PutConversion(BoundedText &out, WCHAR type, Arguments &arguments) {
  if (type == L's') {
    WCHAR const *const wide = va_arg(arguments.list, WCHAR const *);
    out.Put(wide ? wide : L"(null)");
  } else if (type == L'S') {
    char const *const narrow = va_arg(arguments.list, char const *);
    out.Put(WideFromAnsi(narrow ? narrow : "(null)"));
  } else if (type == L'd') {
    PutNumber(out, va_arg(arguments.list, int), 10);
  } else if (type == L'u' || type == L'x') {
    PutNumber(out, va_arg(arguments.list, unsigned), type == L'u' ? 10 : 16);
  } else if (type) {
    out.Put(type);
  }
}

void Walk(BoundedText &out, WCHAR const *next, Arguments &arguments) {
  while (*next) {
    WCHAR const unit = *next++;
    if (unit == L'%')
      PutConversion(out, *next ? *next++ : L'\0', arguments);
    else
      out.Put(unit);
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
