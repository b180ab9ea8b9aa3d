// The user's browser, by xdg-open. A new thread starts the opener and reaps it, so that no zombie is left and it does
// not matter how the host handles its children. Called from any thread. Knows nothing of which pages are opened.
#include "platform/system/Browser.h"

#include "platform/base/Fail.h"
#include "platform/system/Detached.h"
#include "platform/text/ControlCharacter.h"
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

/// What no page address may hold besides control characters of ASCII: it would show the user another address than the
/// one that is opened.
struct Range {
  char32_t first, last;
};
constexpr Range kRefused[] = {
    {0x80, 0x9F},     // further control characters
    {0x061C, 0x061C}, // direction mark
    {0x200B, 0x200F}, // zero width, and direction marks
    {0x2028, 0x202E}, // line and paragraph separators, direction embeddings and overrides
    {0x2060, 0x2060}, // word joiner
    {0x2066, 0x2069}, // direction isolates
    {0xFEFF, 0xFEFF}, // zero-width no-break space
};

bool IsRefused(WCHAR unit) {
  auto const character = static_cast<char32_t>(unit);
  return IsControlCharacter(character) ||
         std::any_of(std::begin(kRefused), std::end(kRefused),
                     [=](Range const &range) { return range.first <= character && character <= range.last; });
}

/// `rest` is what follows "://": [user@]host[:port] up to the first delimiter. Browsers treat a backslash as a slash.
bool HasHost(std::wstring_view rest) {
  std::wstring_view const authority = rest.substr(0, rest.find_first_of(L"/\\?#"));
  std::wstring_view const host = authority.substr(authority.rfind(L'@') + 1); // without an '@', npos + 1 is 0
  auto const first = host.find_first_not_of(L' ');
  return first != std::wstring_view::npos && host[first] != L':';
}

/// True for an absolute http or https address with a host and without refused characters. It may hold blanks.
bool IsWebAddress(std::wstring_view address) {
  if (std::any_of(address.begin(), address.end(), IsRefused))
    return false;
  auto const colon = address.find(L"://");
  if (colon == std::wstring_view::npos || !HasHost(address.substr(colon + 3)))
    return false;
  std::wstring scheme(address.substr(0, colon));
  for (WCHAR &unit : scheme)
    if (unit >= L'A' && unit <= L'Z')
      unit += L'a' - L'A';
  return scheme == L"http" || scheme == L"https";
}

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

/// Starts the opener, reports 0 or the errno value, and waits until it has ended.
void RunOpener(std::string &address, std::promise<int> &started) {
  char opener[] = "xdg-open";
  char *const arguments[] = {opener, address.data(), nullptr};
  pid_t child = 0;
  SpawnSettings const settings;
  int const error = posix_spawnp(&child, opener, &settings.actions, &settings.attributes, arguments, environ);
  started.set_value(error);
  while (error == 0 && waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
}

/// The error number is the result, too.
std::uintptr_t Failed(DWORD error) { return Fail(error, std::uintptr_t{error}); }

std::uintptr_t Open(std::wstring_view address) try {
  auto const started = std::make_shared<std::promise<int>>();
  std::future<int> result = started->get_future();
  if (!StartDetached([started, bytes = Utf8FromWide(address)]() mutable { RunOpener(bytes, *started); }))
    return Failed(ERROR_NOT_ENOUGH_MEMORY);
  int const error = result.get();
  if (error == 0)
    return kOpened;
  return Failed(error == ENOENT ? ERROR_FILE_NOT_FOUND : ERROR_ACCESS_DENIED);
} catch (std::bad_alloc const &) {
  return Failed(ERROR_NOT_ENOUGH_MEMORY);
}

} // namespace

void *ShellExecuteW(void * /*hWindow*/, WCHAR const *wszVerb, WCHAR const *wszFile, WCHAR const *wszParameters,
                    WCHAR const *wszDirectory, int /*nShow*/) {
  bool const isOpened = (!wszVerb || std::wcscmp(wszVerb, L"open") == 0) && !wszParameters && !wszDirectory &&
                        wszFile && IsWebAddress(wszFile);
  return reinterpret_cast<void *>(isOpened ? Open(wszFile) : Failed(ERROR_ACCESS_DENIED));
}
