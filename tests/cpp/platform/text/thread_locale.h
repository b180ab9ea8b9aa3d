// A locale of another character set, made for a test and the calling thread's while the object lives.
#pragma once

#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <locale.h>
#include <unistd.h>

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
