// The registry as a text file. Each RegOpenKeyExW reads the file anew and keeps the values of its key; a file that
// can't be read or decoded holds no key, and a line that can't be understood is passed over. Any thread.
#include "platform/system/Registry.h"

#include "platform/base/HandleTable.h"
#include "platform/base/LastError.h"
#include "platform/system/RegularFile.h"
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

/// ASCII letters in lower case: the comparison must not depend on the locale.
std::wstring Fold(std::wstring_view text) {
  std::wstring strFolded(text);
  for (WCHAR &unit : strFolded)
    if (unit >= L'A' && unit <= L'Z')
      unit += L'a' - L'A';
  return strFolded;
}

std::optional<std::string> ReadRegistryFile() {
  char const *const szSet = std::getenv("SKIFFPORT_REGISTRY");
  UniqueFd const fd = OpenRegularFile(szSet && *szSet ? szSet : "/etc/skiffport/registry.reg");
  struct stat status;
  if (!fd || fstat(fd.Get(), &status) != 0 || status.st_size > kLargestFile)
    return std::nullopt;
  std::string bytes(static_cast<std::size_t>(status.st_size), '\0');
  ssize_t const cb = ReadFully(fd.Get(), bytes.data(), bytes.size());
  if (cb < 0)
    return std::nullopt;
  bytes.resize(static_cast<std::size_t>(cb));
  return bytes;
}

std::optional<std::wstring> DecodeUtf16(std::string_view bytes, bool bBigEndian) {
  if (bytes.size() % 2 != 0)
    return std::nullopt;
  std::wstring units;
  for (std::size_t u = 0; u < bytes.size(); u += 2) {
    auto const first = static_cast<unsigned char>(bytes[u]);
    auto const second = static_cast<unsigned char>(bytes[u + 1]);
    units.push_back(static_cast<WCHAR>(bBigEndian ? first << 8 | second : second << 8 | first));
  }
  std::wstring text;
  for (WCHAR const *p = units.data(), *pEnd = p + units.size(); p != pEnd;) {
    text.push_back(static_cast<WCHAR>(NextCharacter(p, pEnd)));
    if (IsSurrogate(static_cast<char32_t>(text.back())))
      return std::nullopt;
  }
  return text;
}

/// By the mark at the start; without one it is UTF-8.
std::optional<std::wstring> Decode(std::string_view bytes) {
  if (bytes.starts_with("\xFF\xFE"))
    return DecodeUtf16(bytes.substr(2), false);
  if (bytes.starts_with("\xFE\xFF"))
    return DecodeUtf16(bytes.substr(2), true);
  if (bytes.starts_with("\xEF\xBB\xBF"))
    bytes.remove_prefix(3);
  bool bValid = false;
  std::wstring text = WideFromUtf8(bytes, &bValid);
  return bValid ? std::optional(std::move(text)) : std::nullopt;
}

std::wstring_view Trim(std::wstring_view text) {
  constexpr std::wstring_view kBlanks = L" \t\r";
  auto const uFirst = text.find_first_not_of(kBlanks);
  if (uFirst == std::wstring_view::npos)
    return {};
  return text.substr(uFirst, text.find_last_not_of(kBlanks) - uFirst + 1);
}

/// Takes a quoted name off the front of the line, its escapes resolved; none if it does not end.
std::optional<std::wstring> TakeName(std::wstring_view &line) {
  std::wstring strName;
  for (std::size_t u = 1; u < line.size(); ++u) {
    if (line[u] == L'"') {
      line.remove_prefix(u + 1);
      return strName;
    }
    if (line[u] == L'\\' && u + 1 < line.size())
      ++u;
    strName.push_back(line[u]);
  }
  return std::nullopt;
}

/// The number of a "dword:" with one to eight hexadecimal digits; none for any other data.
std::optional<DWORD> ParseDword(std::wstring_view data) {
  constexpr std::wstring_view kType = L"dword:";
  std::wstring const strFolded = Fold(data.substr(0, data.find(L';')));
  std::wstring_view digits = strFolded;
  if (!digits.starts_with(kType))
    return std::nullopt;
  digits = Trim(digits.substr(kType.size()));
  if (digits.empty() || digits.size() > 8)
    return std::nullopt;
  DWORD dwValue = 0;
  for (WCHAR const unit : digits) {
    auto const uDigit = std::wstring_view(L"0123456789abcdef").find(unit);
    if (uDigit == std::wstring_view::npos)
      return std::nullopt;
    dwValue = dwValue << 4 | static_cast<DWORD>(uDigit);
  }
  return dwValue;
}

void ParseValue(std::wstring_view line, Values &values) {
  auto const strName = TakeName(line);
  line = Trim(line);
  if (!strName || !line.starts_with(L'='))
    return;
  if (auto const dwValue = ParseDword(Trim(line.substr(1))))
    values[Fold(*strName)] = *dwValue;
}

/// The values of the key with that folded path; null if neither it nor a key below it is in the text.
std::shared_ptr<Values const> FindKey(std::wstring_view text, std::wstring const &strPath) {
  Values values;
  bool bFound = false;
  bool bInside = false;
  while (!text.empty()) {
    auto const uEnd = text.find(L'\n');
    std::wstring_view const line = Trim(text.substr(0, uEnd));
    text.remove_prefix(uEnd == std::wstring_view::npos ? text.size() : uEnd + 1);
    if (line.starts_with(L'[')) {
      auto const uClose = line.rfind(L']');
      std::wstring const strKey = uClose == std::wstring_view::npos ? L"" : Fold(line.substr(1, uClose - 1));
      bInside = strKey == strPath;
      bFound = bFound || bInside || strKey.starts_with(strPath + L"\\");
    } else if (bInside && line.starts_with(L'"')) {
      ParseValue(line, values);
    }
  }
  return bFound ? std::make_shared<Values const>(std::move(values)) : nullptr;
}

LONG OpenKey(WCHAR const *wszPath, HKEY *phKey) {
  auto const bytes = ReadRegistryFile();
  auto const text = bytes ? Decode(*bytes) : std::nullopt;
  if (!text)
    return ERROR_FILE_NOT_FOUND;
  std::wstring strPath = L"hkey_local_machine";
  if (wszPath && *wszPath)
    strPath += L"\\" + Fold(wszPath);
  auto values = FindKey(*text, strPath);
  if (!values)
    return ERROR_FILE_NOT_FOUND;
  *phKey = Keys().Add(std::move(values));
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
  bool const bFits = !pbData || *pcbData >= sizeof(DWORD);
  *pcbData = sizeof(DWORD);
  if (!bFits)
    return ERROR_MORE_DATA;
  if (pbData)
    std::memcpy(pbData, &it->second, sizeof(DWORD));
  return ERROR_SUCCESS;
} catch (std::bad_alloc const &) {
  return ERROR_NOT_ENOUGH_MEMORY;
}

LONG RegCloseKey(HKEY hKey) { return Keys().Remove(hKey) ? ERROR_SUCCESS : ERROR_INVALID_HANDLE; }
