// Debug output on standard error, and the event-trace functions over the system journal. The journal's library is
// looked up at run time and stays loaded: a thread may still write while the process ends. Any thread.
#include "platform/system/Debug.h"

#include "platform/base/HandleTable.h"
#include "platform/base/LastError.h"
#include "platform/base/Seam.h"
#include "platform/text/Utf8.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <new>
#include <string>

#include <dlfcn.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

using SendToJournal = int (*)(iovec const *, int);

std::atomic<SendToJournal> g_pfnSend = nullptr;

/// A registered provider: its journal field.
HandleTable<std::string const> &Providers() {
  static auto &table = *new HandleTable<std::string const>(4);
  return table;
}

// A pipe keeps only so much in one piece; a longer text could be mixed with another thread's. It is cut before a whole
// character, and keeps its line end.
std::string CutToOnePiece(std::string_view text) {
  std::size_t uEnd = PIPE_BUF - 1;
  while (uEnd > 0 && (static_cast<BYTE>(text[uEnd]) & 0xC0) == 0x80)
    --uEnd;
  return std::string(text.substr(0, uEnd)) + (text.back() == '\n' ? "\n" : "");
}

void WriteDebug(std::string_view text) {
  while (write(STDERR_FILENO, text.data(), text.size()) < 0 && errno == EINTR) {
  }
}

void WriteInOnePiece(std::string_view text) {
  if (text.size() <= PIPE_BUF)
    WriteDebug(text);
  else
    WriteDebug(CutToOnePiece(text));
}

bool HasJournal() {
  struct stat status;
  return stat("/run/systemd/journal/socket", &status) == 0 && S_ISSOCK(status.st_mode);
}

std::string ProviderField(GUID const &guid) {
  char szField[64];
  BYTE const *const d = guid.Data4;
  std::snprintf(szField, sizeof szField, "PROVIDER_GUID={%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", guid.Data1,
                guid.Data2, guid.Data3, d[0], d[1], d[2], d[3], d[4], d[5], d[6], d[7]);
  return szField;
}

/// The journal's priority (syslog's numbers) for an event level: 1 critical to 5 verbose.
int PriorityOf(BYTE level) {
  static constexpr std::array<int, 6> kPriorities = {6, 2, 3, 4, 6, 7};
  return kPriorities[std::min<std::size_t>(level, kPriorities.size() - 1)];
}

ULONG EventRegister(GUID const *pProvider, void * /*pfnCallback*/, void * /*pContext*/, REGHANDLE *phProvider) try {
  if (!pProvider || !phProvider)
    return ERROR_INVALID_PARAMETER;
  auto provider = std::make_shared<std::string const>(ProviderField(*pProvider));
  *phProvider = reinterpret_cast<std::uintptr_t>(Providers().Add(std::move(provider)));
  return ERROR_SUCCESS;
} catch (std::bad_alloc const &) {
  return ERROR_NOT_ENOUGH_MEMORY;
}

ULONG EventWriteString(REGHANDLE hProvider, BYTE level, std::uint64_t /*uKeyword*/, WCHAR const *wszText) try {
  auto const provider = Providers().Find(reinterpret_cast<void *>(static_cast<std::uintptr_t>(hProvider)));
  SendToJournal const pfnSend = g_pfnSend;
  if (!provider || !pfnSend)
    return ERROR_INVALID_HANDLE;
  if (!wszText)
    return ERROR_INVALID_PARAMETER;
  std::wstring_view text = wszText;
  if (text.ends_with(L'\n'))
    text.remove_suffix(1);
  std::string const fields[] = {"MESSAGE=" + Utf8FromWide(text), "PRIORITY=" + std::to_string(PriorityOf(level)),
                                "EVENT_LEVEL=" + std::to_string(level), *provider};
  iovec entries[std::size(fields)];
  std::transform(std::begin(fields), std::end(fields), entries, [](std::string const &field) {
    return iovec{const_cast<char *>(field.data()), field.size()};
  });
  return pfnSend(entries, static_cast<int>(std::size(entries))) == 0 ? ERROR_SUCCESS : ERROR_WRITE_FAULT;
} catch (std::bad_alloc const &) {
  return ERROR_NOT_ENOUGH_MEMORY;
}

ULONG EventUnregister(REGHANDLE hProvider) {
  bool const bRemoved = Providers().Remove(reinterpret_cast<void *>(static_cast<std::uintptr_t>(hProvider))) != nullptr;
  return bRemoved ? ERROR_SUCCESS : ERROR_INVALID_HANDLE;
}

struct ExportRow {
  char const *szName;
  FARPROC pfn;
};
ExportRow const kExports[] = {
    {"EventRegister", reinterpret_cast<FARPROC>(&EventRegister)},
    {"EventWriteString", reinterpret_cast<FARPROC>(&EventWriteString)},
    {"EventUnregister", reinterpret_cast<FARPROC>(&EventUnregister)},
};

} // namespace

void OutputDebugStringA(char const *szText) try {
  if (szText)
    WriteInOnePiece(szText);
} catch (std::bad_alloc const &) { // the line is lost
}

void OutputDebugStringW(WCHAR const *wszText) try {
  if (wszText)
    WriteInOnePiece(Utf8FromWide(wszText));
} catch (std::bad_alloc const &) { // the line is lost
}

HMODULE LoadLibraryA(char const *szName) {
  if (FaultAt(FaultPoint::LoadLibraryA))
    return nullptr;
  bool const bKnown = szName && strcasecmp(szName, "advapi32.dll") == 0;
  void *const pLibrary =
      bKnown && HasJournal() ? dlopen("libsystemd.so.0", RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE) : nullptr;
  void *const pSend = pLibrary ? dlsym(pLibrary, "sd_journal_sendv") : nullptr;
  if (!pSend) {
    if (pLibrary)
      dlclose(pLibrary);
    SetLastError(ERROR_MOD_NOT_FOUND);
    return nullptr;
  }
  g_pfnSend = reinterpret_cast<SendToJournal>(pSend);
  return pLibrary;
}

BOOL FreeLibrary(HMODULE hLibrary) { return hLibrary && dlclose(hLibrary) == 0; }

FARPROC GetProcAddress(HMODULE hLibrary, char const *szName) {
  auto const row = std::find_if(std::begin(kExports), std::end(kExports), [&](ExportRow const &candidate) {
    return hLibrary && szName && std::strcmp(candidate.szName, szName) == 0;
  });
  if (row != std::end(kExports))
    return row->pfn;
  SetLastError(ERROR_PROC_NOT_FOUND);
  return nullptr;
}
