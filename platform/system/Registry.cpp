// The registry as a text file. Each RegOpenKeyExW reads the file again and keeps the values of its key; a file that
// can't be read or decoded holds no key, and a line that makes no sense is skipped. Any thread. Knows no key by name.
#include "platform/system/Registry.h"

#include "platform/base/HandleTable.h"
#include "platform/base/LastError.h"
#include "platform/system/RegularFile.h"
#include "platform/text/Characters.h"
#include "platform/text/Utf8.h"

#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <map>
#include <new>
#include <optional>

#include <sys/stat.h>

namespace {

constexpr off_t kLargestFile = 1024 * 1024;
constexpr DWORD REG_DWORD = 4;

/// The values of one key by folded name.
using Values = std::map<std::wstring, DWORD>;

HandleTable<Values const> &Keys() {
  static auto &table = *new HandleTable<Values const>(0x20004);
  return table;
}

/// Lowers ASCII letters only: the comparison must not depend on the locale.
std::wstring Fold(std::wstring_view text) {
  std::wstring folded(text);
  for (WCHAR &unit : folded)
    if (unit >= L'A' && unit <= L'Z')
      unit += L'a' - L'A';
  return folded;
}

std::optional<std::string> ReadRegistryFile() {
  char const *const path = std::getenv("SKIFFPORT_REGISTRY");
  UniqueFd const fd = OpenRegularFile(path && *path ? path : "/etc/skiffport/registry.reg");
  struct stat status;
  if (!fd || fstat(fd.Get(), &status) != 0 || status.st_size > kLargestFile)
    return std::nullopt;
  std::string bytes(static_cast<std::size_t>(status.st_size), '\0');
  ssize_t const count = ReadFully(fd.Get(), bytes.data(), bytes.size());
  if (count < 0)
    return std::nullopt;
  bytes.resize(static_cast<std::size_t>(count));
  return bytes;
}

std::optional<std::wstring> DecodeUtf16(std::string_view bytes, bool isBigEndian) {
  if (bytes.size() % 2 != 0)
    return std::nullopt;
  std::wstring units;
  for (std::size_t index = 0; index < bytes.size(); index += 2) {
    auto const high = static_cast<unsigned char>(bytes[isBigEndian ? index : index + 1]);
    auto const low = static_cast<unsigned char>(bytes[isBigEndian ? index + 1 : index]);
    units.push_back(static_cast<WCHAR>(high << 8 | low));
  }
  std::wstring text;
  for (WCHAR const *next = units.data(), *unitsEnd = next + units.size(); next != unitsEnd;) {
    text.push_back(static_cast<WCHAR>(NextCharacter(next, unitsEnd)));
    if (IsSurrogate(static_cast<char32_t>(text.back())))
      return std::nullopt;
  }
  return text;
}

/// Decodes by the byte order mark; without one the text is UTF-8. None if it does not decode.
std::optional<std::wstring> Decode(std::string_view bytes) {
  if (bytes.starts_with("\xFF\xFE"))
    return DecodeUtf16(bytes.substr(2), false);
  if (bytes.starts_with("\xFE\xFF"))
    return DecodeUtf16(bytes.substr(2), true);
  if (bytes.starts_with("\xEF\xBB\xBF"))
    bytes.remove_prefix(3);
  bool isValid = false;
  std::wstring text = WideFromUtf8(bytes, &isValid);
  return isValid ? std::optional(std::move(text)) : std::nullopt;
}

bool IsBlank(WCHAR unit) { return unit == L' ' || unit == L'\t' || unit == L'\r'; }

/// Takes a quoted name off the front of the line and resolves its escapes; none if the closing quote is missing.
std::optional<std::wstring> TakeName(std::wstring_view &line) {
  std::wstring name;
  for (std::size_t index = 1; index < line.size(); ++index) {
    if (line[index] == L'"') {
      line.remove_prefix(index + 1);
      return name;
    }
    if (line[index] == L'\\' && index + 1 < line.size())
      ++index;
    name.push_back(line[index]);
  }
  return std::nullopt;
}

/// The number of a "dword:" with one to eight hexadecimal digits; none for any other data.
std::optional<DWORD> ParseDword(std::wstring_view data) {
  constexpr std::wstring_view kType = L"dword:";
  std::wstring const folded = Fold(data.substr(0, data.find(L';')));
  std::wstring_view digits = folded;
  if (!digits.starts_with(kType))
    return std::nullopt;
  digits = Trim(digits.substr(kType.size()), IsBlank);
  if (digits.empty() || digits.size() > 8 || digits.find_first_not_of(L"0123456789abcdef") != digits.npos)
    return std::nullopt;
  return static_cast<DWORD>(std::stoul(std::wstring(digits), nullptr, 16));
}

void ParseValue(std::wstring_view line, Values &values) {
  auto const name = TakeName(line);
  line = Trim(line, IsBlank);
  if (!name || !line.starts_with(L'='))
    return;
  if (auto const value = ParseDword(Trim(line.substr(1), IsBlank)))
    values[Fold(*name)] = *value;
}

/// The values of the key with that folded path; null if neither it nor a key below it is in the text.
std::shared_ptr<Values const> FindKey(std::wstring_view text, std::wstring const &path) {
  Values values;
  bool isFound = false;
  bool isInside = false;
  while (!text.empty()) {
    auto const end = text.find(L'\n');
    std::wstring_view const line = Trim(text.substr(0, end), IsBlank);
    text.remove_prefix(end == std::wstring_view::npos ? text.size() : end + 1);
    if (line.starts_with(L'[')) {
      auto const close = line.rfind(L']');
      std::wstring const section = close == std::wstring_view::npos ? L"" : Fold(line.substr(1, close - 1));
      isInside = section == path;
      isFound = isFound || isInside || section.starts_with(path + L"\\");
    } else if (isInside && line.starts_with(L'"')) {
      ParseValue(line, values);
    }
  }
  return isFound ? std::make_shared<Values const>(std::move(values)) : nullptr;
}

LONG OpenKey(WCHAR const *relativePath, HKEY *key) {
  auto const bytes = ReadRegistryFile();
  auto const text = bytes ? Decode(*bytes) : std::nullopt;
  if (!text)
    return ERROR_FILE_NOT_FOUND;
  std::wstring path = L"hkey_local_machine";
  if (relativePath && *relativePath)
    path += L"\\" + Fold(relativePath);
  auto values = FindKey(*text, path);
  if (!values)
    return ERROR_FILE_NOT_FOUND;
  *key = Keys().Add(std::move(values));
  return ERROR_SUCCESS;
}

} // namespace

LONG RegOpenKeyExW(HKEY hRoot, WCHAR const *wszPath, DWORD dwOptions, DWORD dwAccess, HKEY *phKey) try {
  if (hRoot != HKEY_LOCAL_MACHINE)
    return ERROR_INVALID_HANDLE;
  if (dwOptions != 0 || dwAccess != KEY_QUERY_VALUE || !phKey)
    return ERROR_INVALID_PARAMETER;
  return OpenKey(wszPath, phKey);
} catch (std::bad_alloc const &) {
  return ERROR_NOT_ENOUGH_MEMORY;
}

LONG RegQueryValueExW(HKEY hKey, WCHAR const *wszName, DWORD * /*pReserved*/, DWORD *pdwType, BYTE *pbData,
                      DWORD *pcbData) try {
  auto const values = Keys().Find(hKey);
  if (!values)
    return ERROR_INVALID_HANDLE;
  if (pbData && !pcbData)
    return ERROR_INVALID_PARAMETER;
  auto const it = values->find(Fold(wszName ? wszName : L""));
  if (it == values->end())
    return ERROR_FILE_NOT_FOUND;
  if (pdwType)
    *pdwType = REG_DWORD;
  if (!pcbData)
    return ERROR_SUCCESS;
  bool const fits = !pbData || *pcbData >= sizeof(DWORD);
  *pcbData = sizeof(DWORD);
  if (!fits)
    return ERROR_MORE_DATA;
  if (pbData)
    std::memcpy(pbData, &it->second, sizeof(DWORD));
  return ERROR_SUCCESS;
} catch (std::bad_alloc const &) {
  return ERROR_NOT_ENOUGH_MEMORY;
}

LONG RegCloseKey(HKEY hKey) { return Keys().Remove(hKey) ? ERROR_SUCCESS : ERROR_INVALID_HANDLE; }
