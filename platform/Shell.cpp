// The user's browser, by xdg-open. A thread of its own starts the opener and collects its exit, so that no zombie stays
// and the host's handling of its children plays no part.
#include "platform/Shell.h"

#include "platform/Detached.h"
#include "platform/LastError.h"
#include "platform/Utf8.h"

#include <cerrno>
#include <cwchar>
#include <future>
#include <memory>
#include <new>

#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr std::uintptr_t kOpened = 33; // any value over 32 is success

/// An absolute http or https address with a host, without blanks and control characters.
bool IsWebAddress(std::wstring_view address) {
  for (WCHAR const unit : address) {
    auto const character = static_cast<char32_t>(unit);
    if (character <= 0x20 || (character >= 0x7F && character <= 0x9F))
      return false;
  }
  auto const uColon = address.find(L"://");
  if (uColon > 5 || // none, or no scheme that is opened
      uColon + 3 == address.size() || address[uColon + 3] == L'/')
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
