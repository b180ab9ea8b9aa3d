// The user's browser, by xdg-open. A thread of its own starts the opener and collects its exit, so that no zombie stays
// and the host's handling of its children plays no part.
#include "platform/system/Browser.h"

#include "platform/system/Detached.h"
#include "platform/base/LastError.h"
#include "platform/text/Utf8.h"

#include <algorithm>
#include <cerrno>
#include <cwchar>
#include <future>
#include <iterator>
#include <memory>
#include <new>

#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr std::uintptr_t kOpened = 33; // any value over 32 is success

/// What no page address may hold: it would steer the opener, or show the user another address than the one that opens.
struct Range {
  char32_t first, last;
};
constexpr Range kRefused[] = {
    {0x00, 0x1F},     // controls
    {0x7F, 0x9F},     // controls
    {0x061C, 0x061C}, // marks of direction
    {0x200B, 0x200F}, // no width, and marks of direction
    {0x2028, 0x202E}, // separators of lines and paragraphs, embeddings and overrides of direction
    {0x2060, 0x2060}, // word joiner
    {0x2066, 0x2069}, // isolates of direction
    {0xFEFF, 0xFEFF}, // no width, no break
};

bool IsRefused(WCHAR unit) {
  auto const character = static_cast<char32_t>(unit);
  return std::any_of(std::begin(kRefused), std::end(kRefused),
                     [=](Range const &range) { return range.first <= character && character <= range.last; });
}

/// `rest` is what follows "://": [user@]host[:port], up to the first delimiter. Browsers take a backslash for a slash.
bool HasHost(std::wstring_view rest) {
  std::wstring_view const authority = rest.substr(0, rest.find_first_of(L"/\\?#"));
  std::wstring_view const host = authority.substr(authority.rfind(L'@') + 1); // all of it without a user
  auto const uFirst = host.find_first_not_of(L' ');
  return uFirst != std::wstring_view::npos && host[uFirst] != L':';
}

/// An absolute http or https address with a host and without characters that are refused. It may hold blanks.
bool IsWebAddress(std::wstring_view address) {
  if (std::any_of(address.begin(), address.end(), IsRefused))
    return false;
  auto const uColon = address.find(L"://");
  if (uColon > 5 || !HasHost(address.substr(uColon + 3))) // none, or no scheme that is opened
    return false;
  std::wstring strScheme(address.substr(0, uColon));
  for (WCHAR &unit : strScheme)
    if (unit >= L'A' && unit <= L'Z')
      unit += L'a' - L'A';
  return strScheme == L"http" || strScheme == L"https";
}

/// What the opener starts with: no input, no output, no signal blocked or ignored, a session of its own.
class SpawnSettings {
public:
  SpawnSettings() {
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
    posix_spawnattr_init(&attributes);
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes, &signals);
    sigfillset(&signals);
    posix_spawnattr_setsigdefault(&attributes, &signals);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSID);
  }
  SpawnSettings(SpawnSettings const &) = delete;
  SpawnSettings &operator=(SpawnSettings const &) = delete;
  ~SpawnSettings() {
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
  }

  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
};

/// Starts the opener, reports 0 or the error number, and waits for its end.
void RunOpener(std::string &address, std::promise<int> &started) {
  char szOpener[] = "xdg-open";
  char *const arguments[] = {szOpener, address.data(), nullptr};
  pid_t child = 0;
  SpawnSettings const settings;
  int const nError = posix_spawnp(&child, szOpener, &settings.actions, &settings.attributes, arguments, environ);
  started.set_value(nError);
  while (nError == 0 && waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
}

std::uintptr_t Failed(DWORD dwError) {
  SetLastError(dwError);
  return dwError;
}

std::uintptr_t Open(std::wstring_view address) try {
  auto const started = std::make_shared<std::promise<int>>();
  std::future<int> result = started->get_future();
  if (!StartDetached([started, strAddress = Utf8FromWide(address)]() mutable { RunOpener(strAddress, *started); }))
    return Failed(ERROR_NOT_ENOUGH_MEMORY);
  int const nError = result.get();
  if (nError == 0)
    return kOpened;
  return Failed(nError == ENOENT ? ERROR_FILE_NOT_FOUND : ERROR_ACCESS_DENIED);
} catch (std::bad_alloc const &) {
  return Failed(ERROR_NOT_ENOUGH_MEMORY);
}

} // namespace

void *ShellExecuteW(void * /*hWindow*/, WCHAR const *wszVerb, WCHAR const *wszFile, WCHAR const *wszParameters,
                    WCHAR const *wszDirectory, int /*nShow*/) {
  bool const bOpens = (!wszVerb || std::wcscmp(wszVerb, L"open") == 0) && !wszParameters && !wszDirectory && wszFile &&
                      IsWebAddress(wszFile);
  return reinterpret_cast<void *>(bOpens ? Open(wszFile) : Failed(ERROR_ACCESS_DENIED));
}
