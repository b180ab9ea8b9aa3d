// What tests of several rooms share.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include <locale.h>
#include <sys/wait.h>
#include <unistd.h>

/// Waits for a condition. Returns: false if it is still not met after ten seconds.
inline bool WaitFor(std::function<bool()> const &condition) {
  for (int n = 0; n < 5000 && !condition(); ++n)
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  return condition();
}

/// Whether a condition holds in a forked child.
inline bool HoldsInChild(std::function<bool()> const &condition) {
  pid_t const child = fork();
  if (child == 0) {
    alarm(20);
    _exit(condition() ? 0 : 1);
  }
  int status = -1;
  return waitpid(child, &status, 0) == child && status == 0;
}

/// Makes a locale of another character set and gives it to the calling thread for as long as the result lives. Returns:
/// null if the system has no character maps (Debian package locales).
inline std::shared_ptr<void> UseLocale(std::string const &charset) {
  char path[] = "/tmp/skiffport-locale-XXXXXX";
  std::string const folder = mkdtemp(path), name = "zz." + charset;
  std::string const make = "localedef -c -i POSIX -f " + charset + " " + folder + "/" + name + " >/dev/null 2>&1";
  setenv("LOCPATH", path, 1); // setlocale, since newlocale loses memory with it
  bool const isMade = std::system(make.c_str()) != -1 && setlocale(LC_CTYPE, name.c_str());
  locale_t const made = isMade ? duplocale(LC_GLOBAL_LOCALE) : nullptr;
  setlocale(LC_CTYPE, "C");
  unsetenv("LOCPATH");
  std::filesystem::remove_all(folder);
  if (!made)
    return nullptr;
  uselocale(made);
  return {made, [](void *locale) { uselocale(LC_GLOBAL_LOCALE), freelocale(static_cast<locale_t>(locale)); }};
}
