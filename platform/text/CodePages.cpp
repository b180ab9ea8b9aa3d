// Code page conversion: UTF-8 by our own strict coder, the other character sets by iconv. Any thread; keeps no state.
#include "platform/text/CodePages.h"

#include "platform/base/LastError.h"
#include "platform/text/AnsiText.h"
#include "platform/text/Utf8.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <cwchar>

#include <iconv.h>
#include <langinfo.h>
#include <strings.h>

namespace {

/// Counts all units and stores those that fit.
template <class Unit> class Sink {
public:
  Sink(Unit *buffer, std::size_t capacity) : m_buffer(buffer), m_capacity(capacity) {}

  void Put(Unit unit) {
    if (m_count < m_capacity)
      m_buffer[m_count] = unit;
    ++m_count;
  }
  /// The count, or 0 with the last error if the units do not fit.
  int Result() const {
    if (m_count > INT_MAX)
      return Fail(ERROR_INVALID_PARAMETER, 0);
    if (m_capacity != 0 && m_count > m_capacity)
      return Fail(ERROR_INSUFFICIENT_BUFFER, 0);
    return static_cast<int>(m_count);
  }

private:
  Unit *m_buffer;
  std::size_t m_capacity;
  std::size_t m_count = 0;
};

/// A conversion descriptor. Never throws; not open if the C library does not know the character set.
class Iconv {
public:
  Iconv(char const *to, char const *from) : m_descriptor(iconv_open(to, from)) {}
  Iconv(Iconv const &) = delete;
  Iconv &operator=(Iconv const &) = delete;
  ~Iconv() {
    if (IsOpen())
      iconv_close(m_descriptor);
  }
  bool IsOpen() const { return m_descriptor != reinterpret_cast<iconv_t>(-1); }

  /// Converts as much as it can and moves `in` past it. With a null `in` it flushes.
  /// Returns: 0 or the errno value.
  template <class Unit> int Convert(char const *&in, std::size_t &inSize, Sink<Unit> &sink) const {
    Unit units[64];
    int error = E2BIG;
    while (error == E2BIG) {
      char *out = reinterpret_cast<char *>(units);
      std::size_t outSize = sizeof units;
      std::size_t const sizeBefore = inSize;
      bool const isDone = iconv(m_descriptor, in ? const_cast<char **>(&in) : nullptr, &inSize, &out, &outSize) !=
                          static_cast<std::size_t>(-1);
      error = isDone ? 0 : errno;
      if (error == E2BIG && in && inSize == sizeBefore)
        return EILSEQ; // a decoder of the C library that is stuck, and would fill one buffer after the other
      for (std::size_t index = 0; index < (sizeof units - outSize) / sizeof(Unit); ++index)
        sink.Put(units[index]);
    }
    return error;
  }

  /// Writes out what the descriptor still holds, such as its last character or a return to the initial shift state.
  template <class Unit> void Flush(Sink<Unit> &sink) const {
    char const *none = nullptr;
    std::size_t noneSize = 0;
    Convert(none, noneSize, sink);
  }

private:
  iconv_t m_descriptor;
};

/// The character set of the calling thread's locale; null if it is UTF-8 or the plain C locale.
/// nl_langinfo prefers the thread's own locale; nl_langinfo_l can't be asked about the global one.
char const *ThreadCharset() {
  char const *const charset = nl_langinfo(CODESET);
  for (char const *name : {"UTF-8", "utf8", "ANSI_X3.4-1968", "US-ASCII", ""})
    if (strcasecmp(charset, name) == 0)
      return nullptr;
  return charset;
}

int ToUtf8(WCHAR const *next, WCHAR const *end, Sink<char> sink) {
  while (next != end)
    EncodeUtf8(NextCharacter(next, end), [&](char byte) { sink.Put(byte); });
  return sink.Result();
}

int ToCharset(char const *charset, WCHAR const *next, WCHAR const *end, Sink<char> sink) {
  Iconv const converter(charset, "WCHAR_T");
  if (!converter.IsOpen())
    return Fail(ERROR_INVALID_PARAMETER, 0);
  while (next != end) {
    char32_t const character = NextCharacter(next, end);
    char const *in = reinterpret_cast<char const *>(&character);
    std::size_t inSize = sizeof character;
    if (converter.Convert(in, inSize, sink) != 0) {
      converter.Flush(sink);
      sink.Put('?');
    }
  }
  converter.Flush(sink);
  return sink.Result();
}

int FromCharset(char const *charset, char const *in, std::size_t inSize, Sink<WCHAR> sink) {
  Iconv const converter("WCHAR_T", charset);
  if (!converter.IsOpen())
    return Fail(ERROR_INVALID_PARAMETER, 0);
  while (inSize != 0) {
    int const error = converter.Convert(in, inSize, sink);
    if (error == 0)
      break;
    converter.Flush(sink);
    sink.Put(static_cast<WCHAR>(kReplacementCharacter));
    if (error != EILSEQ) // the text ends inside a character
      break;
    ++in;
    --inSize;
  }
  converter.Flush(sink); // a letter that waits for an accent to join with
  return sink.Result();
}

/// The checks that both directions share. False, with the last error, if the arguments can't be served.
bool CanConvert(UINT codePage, DWORD flags, void const *text, int length, void const *buffer, int capacity) {
  bool const isKnown = codePage == CP_ACP || codePage == CP_THREAD_ACP || codePage == CP_UTF8;
  bool const isServed = isKnown && flags == 0 && text && length != 0 && capacity >= 0 && (buffer || capacity == 0);
  return isServed ? true : Fail(ERROR_INVALID_PARAMETER, false);
}

} // namespace

int WideCharToMultiByte(UINT uCodePage, DWORD dwFlags, WCHAR const *wszWide, int cchWide, char *szBytes, int cbBytes,
                        char const *szDefault, BOOL *pbUsedDefault) {
  if (!CanConvert(uCodePage, dwFlags, wszWide, cchWide, szBytes, cbBytes))
    return 0;
  if (szDefault || pbUsedDefault)
    return Fail(ERROR_INVALID_PARAMETER, 0);
  WCHAR const *const end = wszWide + (cchWide < 0 ? std::wcslen(wszWide) + 1 : static_cast<std::size_t>(cchWide));
  Sink<char> const sink(szBytes, static_cast<std::size_t>(cbBytes));
  char const *const charset = uCodePage == CP_UTF8 ? nullptr : ThreadCharset();
  return charset ? ToCharset(charset, wszWide, end, sink) : ToUtf8(wszWide, end, sink);
}

int MultiByteToWideChar(UINT uCodePage, DWORD dwFlags, char const *szBytes, int cbBytes, WCHAR *wszWide, int cchWide) {
  if (!CanConvert(uCodePage, dwFlags, szBytes, cbBytes, wszWide, cchWide))
    return 0;
  std::size_t const size = cbBytes < 0 ? std::strlen(szBytes) + 1 : static_cast<std::size_t>(cbBytes);
  Sink<WCHAR> sink(wszWide, static_cast<std::size_t>(cchWide));
  if (char const *const charset = uCodePage == CP_UTF8 ? nullptr : ThreadCharset())
    return FromCharset(charset, szBytes, size, sink);
  DecodeAll({szBytes, size}, [&](WCHAR unit) { sink.Put(unit); });
  return sink.Result();
}

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

std::string AnsiFromWide(std::wstring_view text) {
  auto const convert = [&](char *bytes, int size) {
    return WideCharToMultiByte(CP_THREAD_ACP, 0, text.data(), static_cast<int>(text.size()), bytes, size, nullptr,
                               nullptr);
  };
  std::string bytes(text.empty() ? 0 : static_cast<std::size_t>(convert(nullptr, 0)), '\0');
  if (!bytes.empty())
    convert(bytes.data(), static_cast<int>(bytes.size()));
  return bytes;
}

std::wstring WideFromAnsi(std::string_view text) {
  auto const convert = [&](WCHAR *wide, int size) {
    return MultiByteToWideChar(CP_THREAD_ACP, 0, text.data(), static_cast<int>(text.size()), wide, size);
  };
  std::wstring wide(text.empty() ? 0 : static_cast<std::size_t>(convert(nullptr, 0)), L'\0');
  if (!wide.empty())
    convert(wide.data(), static_cast<int>(wide.size()));
  return wide;
}
