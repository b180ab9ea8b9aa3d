// Debug output, and the event-trace functions over the system journal. The journal's library is
// looked up at run time and stays loaded: a thread may still write while the process ends. Any thread.
#include "platform/system/Debug.h"

#include "platform/base/Fork.h"
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
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <new>
#include <string>

#include <dlfcn.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

using SendToJournal = int (*)(iovec const *, int);

std::atomic<SendToJournal> g_send = nullptr;

/// A registered provider: its journal field.
HandleTable<std::string const> &Providers() {
  static auto &table = *new HandleTable<std::string const>(4);
  return table;
}

int OutputDescriptor() {
  NoForkScope const scope; // in the child, a half-initialised variable would block for ever
  static int const s_output = [] {
    char const *const path = std::getenv("SKIFFPORT_DEBUG_OUTPUT");
    int const fd = path ? open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0600) : -1;
    return fd >= 0 ? fd : STDERR_FILENO;
  }();
  return s_output;
}

/// Writes the text in one piece. A pipe takes at most PIPE_BUF bytes atomically; a longer text, which could be mixed
/// with another thread's, is cut between characters and keeps its line end.
void WriteDebug(std::string text) {
  if (text.size() > PIPE_BUF) {
    std::size_t end = PIPE_BUF - 1;
    while (end > 0 && (static_cast<BYTE>(text[end]) & 0xC0) == 0x80)
      --end;
    text.replace(end, text.npos, text.back() == '\n' ? "\n" : "");
  }
  while (write(OutputDescriptor(), text.data(), text.size()) < 0 && errno == EINTR) {
  }
}

bool HasJournal() {
  struct stat status;
  return stat("/run/systemd/journal/socket", &status) == 0 && S_ISSOCK(status.st_mode);
}

std::string ProviderField(GUID const &guid) {
  char field[64];
  BYTE const *const data4 = guid.Data4;
  std::snprintf(field, sizeof field, "PROVIDER_GUID={%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", guid.Data1,
                guid.Data2, guid.Data3, data4[0], data4[1], data4[2], data4[3], data4[4], data4[5], data4[6], data4[7]);
  return field;
}

/// The journal's priority (syslog's numbers) for an event level: 1 critical to 5 verbose.
int PriorityOf(BYTE level) {
  static constexpr std::array<int, 6> kPriorities = {6, 2, 3, 4, 6, 7};
  return kPriorities[std::min<std::size_t>(level, kPriorities.size() - 1)];
}

ULONG EventRegister(GUID const *guid, void * /*callback*/, void * /*context*/, REGHANDLE *handle) try {
  if (!guid || !handle)
    return ERROR_INVALID_PARAMETER;
  auto provider = std::make_shared<std::string const>(ProviderField(*guid));
  *handle = reinterpret_cast<std::uintptr_t>(Providers().Add(std::move(provider)));
  return ERROR_SUCCESS;
} catch (std::bad_alloc const &) {
  return ERROR_NOT_ENOUGH_MEMORY;
}

ULONG EventWriteString(REGHANDLE handle, BYTE level, std::uint64_t /*keyword*/, WCHAR const *line) try {
  auto const provider = Providers().Find(reinterpret_cast<void *>(static_cast<std::uintptr_t>(handle)));
  SendToJournal const send = g_send;
  if (!provider || !send)
    return ERROR_INVALID_HANDLE;
  if (!line)
    return ERROR_INVALID_PARAMETER;
  std::wstring_view text = line;
  if (text.ends_with(L'\n'))
    text.remove_suffix(1);
  std::string const fields[] = {"MESSAGE=" + Utf8FromWide(text), "PRIORITY=" + std::to_string(PriorityOf(level)),
                                "EVENT_LEVEL=" + std::to_string(level), *provider};
  iovec entries[std::size(fields)];
  std::transform(std::begin(fields), std::end(fields), entries, [](std::string const &field) {
    return iovec{const_cast<char *>(field.data()), field.size()};
  });
  return send(entries, static_cast<int>(std::size(entries))) == 0 ? ERROR_SUCCESS : ERROR_WRITE_FAULT;
} catch (std::bad_alloc const &) {
  return ERROR_NOT_ENOUGH_MEMORY;
}

ULONG EventUnregister(REGHANDLE handle) {
  bool const isRemoved = Providers().Remove(reinterpret_cast<void *>(static_cast<std::uintptr_t>(handle))) != nullptr;
  return isRemoved ? ERROR_SUCCESS : ERROR_INVALID_HANDLE;
}

struct ExportRow {
  char const *name;
  FARPROC function;
};
ExportRow const kExports[] = {
    {"EventRegister", reinterpret_cast<FARPROC>(&EventRegister)},
    {"EventWriteString", reinterpret_cast<FARPROC>(&EventWriteString)},
    {"EventUnregister", reinterpret_cast<FARPROC>(&EventUnregister)},
};

} // namespace

void OutputDebugStringA(char const *szText) try {
  if (szText)
    WriteDebug(szText);
} catch (std::bad_alloc const &) { // the line is lost
}

void OutputDebugStringW(WCHAR const *wszText) try {
  if (wszText)
    WriteDebug(Utf8FromWide(wszText));
} catch (std::bad_alloc const &) { // the line is lost
}

HMODULE LoadLibraryA(char const *szName) {
  if (FaultAt(FaultPoint::LoadLibraryA))
    return nullptr;
  bool const isKnown = szName && strcasecmp(szName, "advapi32.dll") == 0;
  void *const library =
      isKnown && HasJournal() ? dlopen("libsystemd.so.0", RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE) : nullptr;
  void *const function = library ? dlsym(library, "sd_journal_sendv") : nullptr;
  if (!function) {
    if (library)
      dlclose(library);
    return Fail(ERROR_MOD_NOT_FOUND, nullptr);
  }
  g_send = reinterpret_cast<SendToJournal>(function);
  return library;
}

BOOL FreeLibrary(HMODULE hLibrary) { return hLibrary && dlclose(hLibrary) == 0; }

FARPROC GetProcAddress(HMODULE hLibrary, char const *szName) {
  auto const row = std::find_if(std::begin(kExports), std::end(kExports), [&](ExportRow const &candidate) {
    return hLibrary && szName && std::strcmp(candidate.name, szName) == 0;
  });
  return row != std::end(kExports) ? row->function : Fail(ERROR_PROC_NOT_FOUND, FARPROC{nullptr});
}
