// The registry file: what its key and value read as.
#include "platform/system/Registry.h"
#include "platform/text/Utf8.h"
#include "tests/fuzz/fuzz.h"

#include <sys/mman.h>
#include <unistd.h>

constexpr long long kNoKey = -1, kNoValue = -2;

/// The number that a file of this text gives "DumpMsg".
static long long Read(std::string_view text) {
  static int const fd = [] {
    int const made = memfd_create("registry", MFD_CLOEXEC);
    setenv("SKIFFPORT_REGISTRY", ("/proc/self/fd/" + std::to_string(made)).c_str(), 1);
    return made;
  }();
  Require(ftruncate(fd, 0) == 0 && pwrite(fd, text.data(), text.size(), 0) >= 0, "a file");
  HKEY hKey = nullptr;
  LONG result = RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SoftWare\\Quillon\\Tintwright", 0, KEY_QUERY_VALUE, &hKey);
  if (result == ERROR_FILE_NOT_FOUND)
    return kNoKey;
  Require(result == ERROR_SUCCESS, "a key or none");
  DWORD type = 0, value = 0, length = sizeof value;
  result = RegQueryValueExW(hKey, L"DumpMsg", nullptr, &type, reinterpret_cast<BYTE *>(&value), &length);
  Require(result == ERROR_FILE_NOT_FOUND || (result == ERROR_SUCCESS && type == 4 && length == 4), "a value or none");
  Require(RegCloseKey(hKey) == ERROR_SUCCESS, "the key closes");
  return result == ERROR_SUCCESS ? value : kNoValue;
}

FUZZ_TARGET(input) {
  std::string const text(input.rest);
  long long const value = Read(text);
  if (text.starts_with("\xFF\xFE") || text.starts_with("\xFE\xFF") || text.starts_with("\xEF\xBB\xBF"))
    return;
  bool isUtf8 = false;
  WideFromUtf8(text, &isUtf8);
  if (!isUtf8)
    return Require(value == kNoKey, "a file that does not decode has no key");
  Require(Read("\xEF\xBB\xBF" + text) == value, "UTF-8 with its mark reads the same");
  std::string const line = "\n[HKEY_LOCAL_MACHINE\\SoftWare\\Quillon\\Tintwright]\n\"DumpMsg\"=dword:2a";
  Require(Read(text + line) == 0x2A, "a line counts whatever precedes it");
}
