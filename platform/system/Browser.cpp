// The user's browser, by xdg-open. A new thread reaps the opener, so that no zombie is left, however the host handles
// its children. Called from any thread. Knows nothing of which pages are opened.
#include "platform/system/Browser.h"

#include "platform/base/LastError.h"
#include "platform/system/Detached.h"
#include "platform/text/Utf8.h"

#include <cerrno>
#include <cwchar>
#include <new>

#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr std::uintptr_t kOpened = 33; // any value over 32 is success

/// How the opener starts: no input, no output, no signal blocked or ignored, in a new session.
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

/// The error number is the result, too.
std::uintptr_t Failed(DWORD error) { return Fail(error, std::uintptr_t{error}); }

std::uintptr_t Open(std::wstring_view address) try {
  char opener[] = "xdg-open";
  std::string bytes = Utf8FromWide(address);
  char *const arguments[] = {opener, bytes.data(), nullptr};
  pid_t child = 0;
  SpawnSettings const settings;
  int const error = posix_spawnp(&child, opener, &settings.actions, &settings.attributes, arguments, environ);
  if (error != 0)
    return Failed(error == ENOENT ? ERROR_FILE_NOT_FOUND : ERROR_ACCESS_DENIED);
  StartDetached([child] { // reaps it; where no thread can be had, it stays a zombie until the host ends
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
  });
  return kOpened;
} catch (std::bad_alloc const &) {
  return Failed(ERROR_NOT_ENOUGH_MEMORY);
}

} // namespace

void *ShellExecuteW(void * /*hWindow*/, WCHAR const *wszVerb, WCHAR const *wszFile, WCHAR const *wszParameters,
                    WCHAR const *wszDirectory, int /*nShow*/) {
  bool const isOpened =
      (!wszVerb || std::wcscmp(wszVerb, L"open") == 0) && !wszParameters && !wszDirectory && wszFile && *wszFile;
  return reinterpret_cast<void *>(isOpened ? Open(wszFile) : Failed(ERROR_ACCESS_DENIED));
}
