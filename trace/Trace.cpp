// The state of the trace and its two channels. Runs on any thread: the switches are atomic, one lock guards everything
// else, and each call formats into buffers of its own. A line is written after the lock is released, so that a stalled
// reader blocks the threads that trace, but neither fork nor exit. Lines don't mix because each channel takes a line in
// one piece.
#include "trace/Trace.h"

#include "framework/SlimLock.h"
#include "platform/system/Debug.h"
#include "platform/system/Registry.h"
#include "platform/text/CodePages.h"
#include "platform/text/Text.h"

#include <atomic>
#include <cstdarg>
#include <cstring>
#include <mutex>

namespace {

using EventRegisterFunction = ULONG(WINAPI *)(GUID const *, void *, void *, REGHANDLE *);
using EventWriteStringFunction = ULONG(WINAPI *)(REGHANDLE, BYTE, std::uint64_t, WCHAR const *);
using EventUnregisterFunction = ULONG(WINAPI *)(REGHANDLE);

constexpr std::size_t kTextSize = 1024;
constexpr std::size_t kPrefixSize = 64;
constexpr std::size_t kLineSize = kPrefixSize + kTextSize + 1;
constexpr BYTE kEventLevel = 5; // verbose
constexpr GUID kProvider = {0x9AD3F8FA, 0xB0D3, 0x45A2, {0x8E, 0x95, 0x5D, 0x18, 0x99, 0xE0, 0xAD, 0x05}};
constexpr WCHAR kRegistryPath[] = L"SoftWare\\Quillon\\Tintwright";

constinit std::atomic<bool> g_bDump = false;
constinit std::atomic<bool> g_bEtw = false;

constinit SlimLock g_lock; // guards everything below
constinit char g_szPrefix[kPrefixSize] = {};
constinit WCHAR g_wszPrefix[kPrefixSize] = {};
constinit REGHANDLE g_hProvider = 0;
constinit HMODULE g_hLibrary = nullptr;
constinit EventWriteStringFunction g_pfnWriteString = nullptr;
constinit EventRegisterFunction g_pfnRegister = nullptr;
constinit EventUnregisterFunction g_pfnUnregister = nullptr;

// Unregisters the provider at unload. A thread that still traces afterwards finds no function to write with. A thread
// that was terminated while it held the lock leaves it locked for good; the provider then ends with the process.
struct ProviderCleanup {
  ~ProviderCleanup() {
    std::unique_lock<SlimLock> const lock(g_lock, std::try_to_lock);
    if (!lock)
      return;
    if (g_hProvider && g_pfnUnregister)
      g_pfnUnregister(g_hProvider);
    g_hProvider = 0;
    g_pfnWriteString = nullptr;
    if (g_hLibrary)
      FreeLibrary(g_hLibrary);
    g_hLibrary = nullptr;
  }
} g_providerCleanup;

bool ReadSwitch(HKEY hKey, WCHAR const *wszName) {
  DWORD dwValue = 0;
  DWORD cbValue = sizeof dwValue;
  RegQueryValueExW(hKey, wszName, nullptr, nullptr, reinterpret_cast<BYTE *>(&dwValue), &cbValue);
  return dwValue > 0;
}

// Returns: false if the key does not exist; the switches then keep their values.
bool ReadSwitches(bool &bDump, bool &bEtw) {
  HKEY hKey = nullptr;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kRegistryPath, 0, KEY_QUERY_VALUE, &hKey) != 0)
    return false;
  bDump = ReadSwitch(hKey, L"DumpMsg");
  bEtw = ReadSwitch(hKey, L"DumpInETW");
  RegCloseKey(hKey);
  return true;
}

// Through an untyped pointer, which is what the function type of GetProcAddress stands for.
template <class Function> void Find(Function &pfnFunction, char const *szName) {
  pfnFunction = reinterpret_cast<Function>(reinterpret_cast<void *>(GetProcAddress(g_hLibrary, szName)));
}

// Loads the library once, but registers the provider on every call. Returns: whether the library is loaded.
bool RegisterProvider() {
  if (!g_hLibrary && (g_hLibrary = LoadLibraryA("advapi32.dll")) != nullptr) {
    Find(g_pfnWriteString, "EventWriteString");
    Find(g_pfnRegister, "EventRegister");
    Find(g_pfnUnregister, "EventUnregister");
  }
  if (g_hLibrary && g_pfnRegister)
    g_pfnRegister(&kProvider, nullptr, nullptr, &g_hProvider);
  return g_hLibrary != nullptr;
}

// A copy of the event-trace channel for use without the lock. That is safe: the library is never unmapped, and a
// provider that has been unregistered meanwhile ignores the line.
struct EventChannel {
  bool bEtw = g_bEtw; // whether lines go there
  REGHANDLE hProvider = g_hProvider;
  EventWriteStringFunction pfnWriteString = g_pfnWriteString;

  void Write(WCHAR const *wszLine) const {
    if (pfnWriteString)
      pfnWriteString(hProvider, kEventLevel, 0, wszLine);
  }
};

// What must not reach a terminal or a log as it is, wherever it comes from: control characters but the tab, and what
// reorders or separates lines. Of a narrow text, whose code page is not known, only the former of ASCII.
bool MustEscape(WCHAR c) {
  return (c < 0x20 && c != L'\t') || (c >= 0x7F && c < 0xA0) || (c >= 0x2028 && c <= 0x202E) ||
         (c >= 0x2066 && c <= 0x2069);
}
bool MustEscape(char c) {
  auto const byte = static_cast<unsigned char>(c);
  return byte < 0x80 && MustEscape(static_cast<WCHAR>(byte));
}

// Writes each such character of the text as \uXXXX, except a line feed at its end, which is the caller's. What does not
// fit is cut.
template <class Character> void Escape(Character (&text)[kTextSize]) {
  Character escaped[kTextSize] = {};
  std::size_t cch = 0;
  for (Character const *p = text; *p; ++p) {
    bool const bRaw = !MustEscape(*p) || (*p == '\n' && !p[1]);
    if (cch + (bRaw ? 1 : 6) >= kTextSize)
      break;
    if (bRaw) {
      escaped[cch++] = *p;
      continue;
    }
    escaped[cch++] = '\\';
    escaped[cch++] = 'u';
    for (int nShift = 12; nShift >= 0; nShift -= 4)
      escaped[cch++] = static_cast<Character>("0123456789abcdef"[(*p >> nShift) & 0xF]);
  }
  std::memcpy(text, escaped, sizeof text);
}

// Builds the line in the caller's buffer. Returns: the event-trace channel as it was when the prefix was read.
EventChannel MakeLine(char *szLine, char const *szText) {
  std::lock_guard<SlimLock> const lock(g_lock);
  _snprintf_s(szLine, kLineSize, _TRUNCATE, "%s%s\n", g_szPrefix, szText);
  return {};
}
EventChannel MakeLine(WCHAR *wszLine, WCHAR const *wszText) {
  std::lock_guard<SlimLock> const lock(g_lock);
  _snwprintf_s(wszLine, kLineSize, _TRUNCATE, L"%s%s\n", g_wszPrefix, wszText);
  return {};
}

} // namespace

void TraceInit(char const *szPrefix) {
  std::lock_guard<SlimLock> const lock(g_lock);
  bool bDump = g_bDump;
  bool bEtw = g_bEtw;
  if (ReadSwitches(bDump, bEtw)) {
    g_bDump = bDump;
    g_bEtw = bEtw;
  }
  if (!bDump && !bEtw)
    return;
  if (szPrefix && std::strlen(szPrefix) < kPrefixSize) {
    _snprintf_s(g_szPrefix, kPrefixSize, _TRUNCATE, "[%s] ", szPrefix);
    _snwprintf_s(g_wszPrefix, kPrefixSize, _TRUNCATE, L"[%S] ", szPrefix);
  }
  if (bEtw)
    g_bEtw = RegisterProvider();
}

void TraceMsgA(char const *szFormat, ...) {
  if (!g_bDump)
    return;
  char szText[kTextSize] = {};
  va_list args;
  va_start(args, szFormat);
  _vsnprintf_s(szText, kTextSize, _TRUNCATE, szFormat, args);
  va_end(args);
  Escape(szText);

  char szLine[kLineSize];
  EventChannel const channel = MakeLine(szLine, szText);
  if (!channel.bEtw) {
    OutputDebugStringA(szLine);
    return;
  }
  WCHAR wszLine[kTextSize] = {};
  szLine[kTextSize - 1] = 0; // a line of 1024 bytes or more is cut to fit the wide buffer
  MultiByteToWideChar(CP_THREAD_ACP, 0, szLine, -1, wszLine, static_cast<int>(kTextSize));
  channel.Write(wszLine);
}

void TraceMsgW(wchar_t const *wszFormat, ...) {
  if (!g_bDump)
    return;
  WCHAR wszText[kTextSize] = {};
  va_list args;
  va_start(args, wszFormat);
  _vsnwprintf_s(wszText, kTextSize, _TRUNCATE, wszFormat, args);
  va_end(args);
  Escape(wszText);

  WCHAR wszLine[kLineSize];
  EventChannel const channel = MakeLine(wszLine, wszText);
  if (channel.bEtw)
    channel.Write(wszLine);
  else
    OutputDebugStringW(wszLine);
}
