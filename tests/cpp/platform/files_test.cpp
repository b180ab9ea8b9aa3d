// Files by wide path, and the registry file.
#include "platform/Files.h"
#include "platform/LastError.h"
#include "platform/Registry.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

namespace {

class Files : public testing::Test {
protected:
  Files() {
    char szTemplate[] = "/tmp/skiffport-files-XXXXXX";
    m_path = mkdtemp(szTemplate);
  }
  ~Files() override { std::filesystem::remove_all(m_path); }

  void Write(std::string const &strName, std::string const &strBytes) const {
    std::ofstream(m_path + "/" + strName, std::ios::binary) << strBytes;
  }
  std::wstring Path(std::wstring const &strName) const {
    return std::wstring(m_path.begin(), m_path.end()) + L"/" + strName;
  }
  static HANDLE Open(std::wstring const &strPath) {
    return CreateFileW(strPath.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
  }

  std::string m_path;
};

TEST_F(Files, OnlyRegularFilesOpenAndEachFailureHasItsNumber) {
  Write("file", "x");
  Write("line\nend", "x");
  mkfifo((m_path + "/fifo").c_str(), 0600);
  struct Row {
    std::wstring strPath;
    DWORD dwOpenError;
    DWORD dwExistsError; // 0: it exists
  };
  Row const rows[] = {{Path(L"file"), 0, 0},
                      {Path(L"none"), ERROR_FILE_NOT_FOUND, ERROR_FILE_NOT_FOUND},
                      {Path(L"none/file"), ERROR_PATH_NOT_FOUND, ERROR_PATH_NOT_FOUND},
                      {Path(L"file/below"), ERROR_PATH_NOT_FOUND, ERROR_PATH_NOT_FOUND},
                      {Path(L""), ERROR_ACCESS_DENIED, 0},
                      {Path(L"fifo"), ERROR_ACCESS_DENIED, 0}, // at once, though nobody writes to it
                      {L"", ERROR_PATH_NOT_FOUND, ERROR_PATH_NOT_FOUND},
                      {Path(L"line\nend"), ERROR_INVALID_NAME, ERROR_INVALID_NAME},
                      {Path(std::wstring(300, L'x')), ERROR_INVALID_NAME, ERROR_INVALID_NAME}};
  for (Row const &row : rows) {
    SetLastError(0);
    HANDLE const hFile = Open(row.strPath);
    EXPECT_EQ(GetLastError(), row.dwOpenError) << testing::PrintToString(row.strPath);
    EXPECT_EQ(CloseHandle(hFile), row.dwOpenError == 0);
    SetLastError(0);
    EXPECT_EQ(PathFileExistsW(row.strPath.c_str()), row.dwExistsError == 0);
    EXPECT_EQ(GetLastError(), row.dwExistsError) << testing::PrintToString(row.strPath);
  }
}

TEST_F(Files, NamesAreUtf8OrTheRawBytesOfEscapedUnits) {
  Write("\xE4\xB8\xAD\xF0\x9F\x98\x80", "1");
  Write("raw\xFF\x80", "2");
  Write("\xEF\xBF\xBD", "3");
  auto const units = [](std::initializer_list<int> list) { return std::wstring(list.begin(), list.end()); };
  EXPECT_TRUE(PathFileExistsW(Path(L"\u4E2D\U0001F600").c_str()));
  EXPECT_TRUE(PathFileExistsW(Path(units({0x4E2D, 0xD83D, 0xDE00})).c_str())) << "a surrogate pair";
  EXPECT_TRUE(PathFileExistsW(Path(units({'r', 'a', 'w', 0xDCFF, 0xDC80})).c_str()));
  EXPECT_TRUE(PathFileExistsW(Path(units({0xD800})).c_str())) << "a lone surrogate is U+FFFD";
  EXPECT_FALSE(PathFileExistsW(Path(units({'r', 'a', 'w', 0xFF, 0x80})).c_str()));
}

/// The number that the registry file gives "DumpMsg"; -1: it gives none, -2: it has no such key.
int ReadSwitch() {
  HKEY hKey = nullptr;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SoftWare\\Quillon\\Tintwright", 0, KEY_QUERY_VALUE, &hKey) != ERROR_SUCCESS)
    return -2;
  DWORD dwType = 0, dwValue = 0, cb = 3;
  auto *const pbValue = reinterpret_cast<BYTE *>(&dwValue);
  LONG nResult = RegQueryValueExW(hKey, L"DumpMsg", nullptr, &dwType, pbValue, &cb);
  EXPECT_NE(nResult, ERROR_SUCCESS) << "three bytes are not enough";
  if (nResult == ERROR_MORE_DATA)
    nResult = RegQueryValueExW(hKey, L"DumpMsg", nullptr, &dwType, pbValue, &cb);
  EXPECT_EQ(RegCloseKey(hKey), ERROR_SUCCESS);
  EXPECT_EQ(RegCloseKey(hKey), ERROR_INVALID_HANDLE);
  return nResult == ERROR_SUCCESS && dwType == 4 ? static_cast<int>(dwValue) : -1;
}

TEST_F(Files, RegistryFileInTheForms) {
  std::string const strKey = "[HKEY_LOCAL_MACHINE\\SoftWare\\Quillon\\Tintwright]\r\n";
  std::string const strOn = strKey + "\"DumpMsg\"=dword:0000000a\r\n";
  std::string strWide = "\xFE\xFF";
  for (char const c : strOn)
    strWide += {'\0', c};
  std::string const strNoNumbers = "\"DumpMsg\"=\"1\"\n\"DumpMsg\"=hex(4):02,\\\n  00,00,00\n;\"DumpMsg\"=dword:3\n"
                                   "\"DumpMsg\"=dword:123456789\n\"DumpMsg\"=dword:4x\n\"DumpMsg\"=dword:\n"
                                   "\"DumpMsg=dword:5\n[HKEY_LOCAL_MACHINE\\SoftWare\\Other]\n\"DumpMsg\"=dword:6\n"
                                   "[HKEY_LOCAL_MACHINE\\SoftWare\n\"DumpMsg\"=dword:7\n";
  std::pair<std::string, int> const rows[] = {
      {"Registry Editor\r\n\r\n; note\r\n" + strOn, 10},
      {"\xEF\xBB\xBF" + strOn, 10},
      {strWide, 10},
      {"[hkey_local_machine\\SOFTWARE\\quillon\\TINTWRIGHT]\n \"DUMPMSG\" = DWORD:A ; note", 10},
      {strOn + "\"DumpMsg\"=dword:1\n", 1},
      {strKey + strNoNumbers, -1},
      {"[HKEY_LOCAL_MACHINE\\SoftWare\\Quillon\\Tintwright\\Below]\n\"DumpMsg\"=dword:1\n", -1},
      {"[HKEY_LOCAL_MACHINE\\SoftWare\\Quillon\\TintwrightX]\n\"DumpMsg\"=dword:1\n", -2},
      {"[HKEY_CURRENT_USER\\SoftWare\\Quillon\\Tintwright]\n\"DumpMsg\"=dword:1\n", -2},
      {strOn + "\xFF", -2},
      {strWide + "x", -2},
      {strOn + std::string(1024 * 1024, ';'), -2}};
  setenv("SKIFFPORT_REGISTRY", (m_path + "/registry.reg").c_str(), 1);
  for (auto const &[strFile, nValue] : rows) {
    Write("registry.reg", strFile);
    EXPECT_EQ(ReadSwitch(), nValue) << strFile.substr(0, 400);
  }
  setenv("SKIFFPORT_REGISTRY", m_path.c_str(), 1);
  EXPECT_EQ(ReadSwitch(), -2) << "a directory";
  unsetenv("SKIFFPORT_REGISTRY");
}

} // namespace
