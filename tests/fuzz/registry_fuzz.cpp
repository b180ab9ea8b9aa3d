// The registry file: what a key and its value read as, and that it does not depend on the file's encoding.
#include "platform/system/Registry.h"
#include "platform/text/Utf8.h"
#include "tests/fuzz/fuzz.h"

#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr char kKey[] = "\n[HKEY_LOCAL_MACHINE\\SoftWare\\Quillon\\Tintwright]\n";

/// The file that the registry is read from: in memory, under the name that the process's descriptors have.
int RegistryFile() {
  static int const fd = [] {
    int const made = memfd_create("registry", MFD_CLOEXEC);
    setenv("SKIFFPORT_REGISTRY", ("/proc/self/fd/" + std::to_string(made)).c_str(), 1);
    return made;
  }();
  return fd;
}

/// The number that the file's text gives "DumpMsg", or a negative error number.
long long Read(std::string_view text) {
  Require(ftruncate(RegistryFile(), 0) == 0 && pwrite(RegistryFile(), text.data(), text.size(), 0) >= 0, "a file");
  HKEY hKey = nullptr;
  LONG result = RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SoftWare\\Quillon\\Tintwright", 0, KEY_QUERY_VALUE, &hKey);
  Require(result == ERROR_SUCCESS || result == ERROR_FILE_NOT_FOUND, "a key or none");
  if (result != ERROR_SUCCESS)
    return -1000;
  DWORD type = 0, value = 0, length = sizeof value;
  result = RegQueryValueExW(hKey, L"DumpMsg", nullptr, &type, reinterpret_cast<BYTE *>(&value), &length);
  Require(result == ERROR_FILE_NOT_FOUND || (result == ERROR_SUCCESS && type == 4 && length == 4), "a value or none");
  Require(RegCloseKey(hKey) == ERROR_SUCCESS, "the key closes");
  return result == ERROR_SUCCESS ? value : -result;
}

/// UTF-16 with its byte order mark.
std::string Utf16(std::wstring_view text, bool isBigEndian) {
  std::string bytes;
  auto const put = [&](unsigned unit) {
    char const high = static_cast<char>(unit >> 8), low = static_cast<char>(unit & 0xFF);
    bytes += isBigEndian ? std::string{high, low} : std::string{low, high};
  };
  put(0xFEFF);
  for (WCHAR const c : text) {
    auto const character = static_cast<unsigned>(c);
    if (character >= 0x10000)
      put(0xD800 + ((character - 0x10000) >> 10));
    put(character < 0x10000 ? character : 0xDC00 + ((character - 0x10000) & 0x3FF));
  }
  return bytes;
}

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {
  std::string const text(reinterpret_cast<char const *>(data), size);
  long long const value = Read(text);
  bool isUtf8 = false;
  std::wstring const wide = WideFromUtf8(text, &isUtf8);
  bool const hasMark = text.starts_with("\xFF\xFE") || text.starts_with("\xFE\xFF") || text.starts_with("\xEF\xBB\xBF");
  if (hasMark)
    return 0;
  Require(isUtf8 || value == -1000, "a file that does not decode has no key");
  if (!isUtf8)
    return 0;
  Require(Read("\xEF\xBB\xBF" + text) == value, "UTF-8 with its mark reads the same");
  Require(Read(Utf16(wide, false)) == value && Read(Utf16(wide, true)) == value, "UTF-16 reads the same");
  Require(Read(text + kKey + "\"DumpMsg\"=dword:0000002a") == 42, "a line counts whatever precedes it");
  return 0;
}
