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

/// A locale of another character set, made for a test and the calling thread's while the object lives.
class ThreadLocale {
public:
  /// False afterwards if the system has no character maps (Debian package locales).
  explicit ThreadLocale(std::string const &charset) {
    char path[] = "/tmp/skiffport-locale-XXXXXX";
    std::string const folder = mkdtemp(path), name = "zz." + charset;
    std::string const make = "localedef -c -i POSIX -f " + charset + " " + folder + "/" + name + " >/dev/null 2>&1";
    setenv("LOCPATH", path, 1); // setlocale, since newlocale loses memory with it
    if (std::system(make.c_str()) != -1 && setlocale(LC_CTYPE, name.c_str()))
      uselocale(m_locale = duplocale(LC_GLOBAL_LOCALE));
    setlocale(LC_CTYPE, "C");
    unsetenv("LOCPATH");
    std::filesystem::remove_all(folder);
  }
  ~ThreadLocale() {
    uselocale(LC_GLOBAL_LOCALE);
    if (m_locale)
      freelocale(m_locale);
  }
  ThreadLocale(ThreadLocale const &) = delete;
  explicit operator bool() const { return m_locale; }

private:
  locale_t m_locale = nullptr;
};
