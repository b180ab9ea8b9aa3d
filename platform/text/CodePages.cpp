// Code page conversion: UTF-8 by our own strict coder, the other character sets by iconv. Runs on any thread, keeps no
// state, throws nothing.
#include "platform/text/CodePages.h"

#include "platform/base/LastError.h"
#include "platform/text/Utf8.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <cwchar>

#include <iconv.h>
#include <langinfo.h>
#include <strings.h>

namespace {

/// Counts units and keeps those that fit.
template <class Unit> class Sink {
public:
  Sink(Unit *pBuffer, std::size_t uCapacity) : m_pBuffer(pBuffer), m_uCapacity(uCapacity) {}

  void Put(Unit unit) {
    if (m_uCount < m_uCapacity)
      m_pBuffer[m_uCount] = unit;
    ++m_uCount;
  }
  /// Puts units of ASCII, whatever their size.
  template <class Other> void PutAscii(std::basic_string_view<Other> text) {
    std::size_t const uRoom = m_uCapacity - std::min(m_uCount, m_uCapacity);
    if (m_pBuffer)
      CopyAscii(text.substr(0, uRoom), m_pBuffer + m_uCount);
    m_uCount += text.size();
  }
  /// The count, or 0 with the last error if the units do not fit.
  int Result() const {
    if (m_uCount > INT_MAX) {
      SetLastError(ERROR_INVALID_PARAMETER);
      return 0;
    }
    if (m_uCapacity != 0 && m_uCount > m_uCapacity) {
      SetLastError(ERROR_INSUFFICIENT_BUFFER);
      return 0;
    }
    return static_cast<int>(m_uCount);
  }

private:
  Unit *m_pBuffer;
  std::size_t m_uCapacity;
  std::size_t m_uCount = 0;
};

/// One conversion descriptor. Never throws; not open if the C library does not know the character set.
class Iconv {
public:
  Iconv(char const *szTo, char const *szFrom) : m_descriptor(iconv_open(szTo, szFrom)) {}
  Iconv(Iconv const &) = delete;
  Iconv &operator=(Iconv const &) = delete;
  ~Iconv() {
    if (IsOpen())
      iconv_close(m_descriptor);
  }
  bool IsOpen() const { return m_descriptor != reinterpret_cast<iconv_t>(-1); }

  /// Converts as much as goes: `pIn` moves behind what was converted. A null `pIn` writes out what the descriptor
  /// still holds. Returns: 0 or the error number.
  template <class Unit> int Convert(char const *&pIn, std::size_t &cbIn, Sink<Unit> &sink) const {
    Unit units[64];
    int nError = E2BIG;
    while (nError == E2BIG) {
      char *pOut = reinterpret_cast<char *>(units);
      std::size_t cbOut = sizeof units;
      bool const bDone = iconv(m_descriptor, pIn ? const_cast<char **>(&pIn) : nullptr, &cbIn, &pOut, &cbOut) !=
                         static_cast<std::size_t>(-1);
      nError = bDone ? 0 : errno;
      for (std::size_t u = 0; u < (sizeof units - cbOut) / sizeof(Unit); ++u)
        sink.Put(units[u]);
    }
    return nError;
  }

private:
  iconv_t m_descriptor;
};

/// The character set of the calling thread's locale; null if it is UTF-8 or the plain C locale.
/// nl_langinfo looks at the thread's own locale first; nl_langinfo_l can't be asked about the global one.
char const *ThreadCharset() {
  char const *const szCharset = nl_langinfo(CODESET);
  for (char const *szUtf8 : {"UTF-8", "utf8", "ANSI_X3.4-1968", "US-ASCII", ""})
    if (strcasecmp(szCharset, szUtf8) == 0)
      return nullptr;
  return szCharset;
}

int ToUtf8(WCHAR const *p, WCHAR const *pEnd, Sink<char> sink) {
  while (p != pEnd) {
    if (static_cast<char32_t>(*p) < 0x80)
      sink.Put(static_cast<char>(*p++));
    else
      EncodeUtf8(NextCharacter(p, pEnd), [&](char byte) { sink.Put(byte); });
  }
  return sink.Result();
}

int ToCharset(char const *szCharset, WCHAR const *p, WCHAR const *pEnd, Sink<char> sink) {
  Iconv const converter(szCharset, "WCHAR_T");
  if (!converter.IsOpen()) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  char const *pNone = nullptr;
  std::size_t cbNone = 0;
  while (p != pEnd) {
    char32_t const character = NextCharacter(p, pEnd);
    char const *pIn = reinterpret_cast<char const *>(&character);
    std::size_t cbIn = sizeof character;
    if (converter.Convert(pIn, cbIn, sink) != 0) {
      converter.Convert(pNone, cbNone, sink);
      sink.Put('?');
    }
  }
  converter.Convert(pNone, cbNone, sink);
  return sink.Result();
}

int FromCharset(char const *szCharset, char const *pIn, std::size_t cbIn, Sink<WCHAR> sink) {
  Iconv const converter("WCHAR_T", szCharset);
  if (!converter.IsOpen()) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  while (cbIn != 0) {
    int const nError = converter.Convert(pIn, cbIn, sink);
    if (nError == 0)
      break;
    sink.Put(static_cast<WCHAR>(kReplacementCharacter));
    if (nError != EILSEQ) // cut off at the end
      break;
    ++pIn;
    --cbIn;
  }
  return sink.Result();
}

/// The checks that both directions share. False, with the last error set, if the call can't be served.
bool CanConvert(UINT uCodePage, DWORD dwFlags, void const *pText, int nText, void const *pBuffer, int nBuffer) {
  bool const bKnown = uCodePage == CP_ACP || uCodePage == CP_THREAD_ACP || uCodePage == CP_UTF8;
  if (bKnown && dwFlags == 0 && pText && nText != 0 && nBuffer >= 0 && (pBuffer || nBuffer == 0))
    return true;
  SetLastError(ERROR_INVALID_PARAMETER);
  return false;
}

} // namespace

int WideCharToMultiByte(UINT uCodePage, DWORD dwFlags, WCHAR const *wszWide, int cchWide, char *szBytes, int cbBytes,
                        char const *szDefault, BOOL *pbUsedDefault) {
  if (!CanConvert(uCodePage, dwFlags, wszWide, cchWide, szBytes, cbBytes))
    return 0;
  if (szDefault || pbUsedDefault) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  WCHAR const *const pEnd = wszWide + (cchWide < 0 ? std::wcslen(wszWide) + 1 : static_cast<std::size_t>(cchWide));
  Sink<char> const sink(szBytes, static_cast<std::size_t>(cbBytes));
  char const *const szCharset = uCodePage == CP_UTF8 ? nullptr : ThreadCharset();
  return szCharset ? ToCharset(szCharset, wszWide, pEnd, sink) : ToUtf8(wszWide, pEnd, sink);
}

int MultiByteToWideChar(UINT uCodePage, DWORD dwFlags, char const *szBytes, int cbBytes, WCHAR *wszWide, int cchWide) {
  if (!CanConvert(uCodePage, dwFlags, szBytes, cbBytes, wszWide, cchWide))
    return 0;
  std::size_t const cb = cbBytes < 0 ? std::strlen(szBytes) + 1 : static_cast<std::size_t>(cbBytes);
  Sink<WCHAR> sink(wszWide, static_cast<std::size_t>(cchWide));
  if (char const *const szCharset = uCodePage == CP_UTF8 ? nullptr : ThreadCharset())
    return FromCharset(szCharset, szBytes, cb, sink);
  std::string_view bytes(szBytes, cb);
  std::size_t const uAscii = AsciiPrefix(bytes);
  sink.PutAscii(bytes.substr(0, uAscii));
  bytes.remove_prefix(uAscii);
  DecodeAll(bytes, [&](WCHAR unit) { sink.Put(unit); });
  return sink.Result();
}
