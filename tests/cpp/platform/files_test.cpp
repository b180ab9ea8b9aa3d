// Files by wide path, and the registry file.
#include "platform/Files.h"
#include "platform/LastError.h"
#include "platform/Registry.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

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
  mkfifo((m_path + "/fifo").c_str(), 0600);
  Write("closed", "x");
  chmod((m_path + "/closed").c_str(), 0);
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
                      {L"/dev/null", ERROR_ACCESS_DENIED, 0},
                      {Path(L"closed"), geteuid() == 0 ? 0U : ERROR_ACCESS_DENIED, 0},
                      {L"", ERROR_PATH_NOT_FOUND, ERROR_PATH_NOT_FOUND},
                      {Path(L"line\nend"), ERROR_INVALID_NAME, ERROR_INVALID_NAME},
                      {Path(L"delete\x7F"), ERROR_INVALID_NAME, ERROR_INVALID_NAME},
                      {Path(std::wstring(300, L'x')), ERROR_INVALID_NAME, ERROR_INVALID_NAME}};
  Write("line\nend", "x");
  for (Row const &row : rows) {
    SetLastError(0);
    HANDLE const hFile = Open(row.strPath);
    EXPECT_EQ(GetLastError(), row.dwOpenError) << testing::PrintToString(row.strPath);
    EXPECT_EQ(hFile == INVALID_HANDLE_VALUE, row.dwOpenError != 0);
    CloseHandle(hFile);
    SetLastError(0);
    EXPECT_EQ(PathFileExistsW(row.strPath.c_str()), row.dwExistsError == 0 ? TRUE : FALSE);
    EXPECT_EQ(GetLastError(), row.dwExistsError) << testing::PrintToString(row.strPath);
  }
  EXPECT_FALSE(PathFileExistsW(nullptr));
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

TEST_F(Files, ReadingSizesAndHandles) {
  Write("five", "12345");
  HANDLE const hFile = Open(Path(L"five"));
  char buffer[10] = {};
  DWORD dwRead = 99;
  EXPECT_EQ(GetFileSize(hFile, nullptr), 5U);
  EXPECT_TRUE(ReadFile(hFile, buffer, 10, &dwRead, nullptr));
  EXPECT_EQ(std::string(buffer, dwRead), "12345");
  EXPECT_TRUE(ReadFile(hFile, buffer, 10, &dwRead, nullptr));
  EXPECT_EQ(dwRead, 0U);
  EXPECT_TRUE(CloseHandle(hFile));
  for (HANDLE const hBad : {hFile, INVALID_HANDLE_VALUE, HANDLE(nullptr)}) {
    SetLastError(0);
    EXPECT_FALSE(ReadFile(hBad, buffer, 10, &dwRead, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    EXPECT_EQ(GetFileSize(hBad, nullptr), INVALID_FILE_SIZE);
    EXPECT_FALSE(CloseHandle(hBad));
  }
  Write("sparse", "");
  ASSERT_EQ(truncate((m_path + "/sparse").c_str(), 0x1FFFFFFFF), 0);
  HANDLE const hLarge = Open(Path(L"sparse"));
  DWORD dwHigh = 0;
  SetLastError(7);
  EXPECT_EQ(GetFileSize(hLarge, &dwHigh), 0xFFFFFFFF);
  EXPECT_EQ(dwHigh, 1U);
  EXPECT_EQ(GetLastError(), ERROR_SUCCESS) << "a size, not a failure";
  CloseHandle(hLarge);
}

std::string Utf16(std::string const &strText, bool bBigEndian) {
  std::string strBytes = bBigEndian ? "\xFE\xFF" : "\xFF\xFE";
  for (char const c : strText)
    strBytes += bBigEndian ? std::string{'\0', c} : std::string{c, '\0'};
  return strBytes;
}

TEST_F(Files, RegistryFileInTheForms) {
  std::string const strKey = "[HKEY_LOCAL_MACHINE\\SoftWare\\Quillon\\Tintwright]\r\n";
  std::string const strOn = strKey + "\"DumpMsg\"=dword:0000000a\r\n";
  struct Row {
    std::string strFile;
    LONG nOpen;
    int nValue; // of "DumpMsg"; -1: absent
  };
  Row const rows[] = {
      {strOn, 0, 10},
      {"Registry Editor\r\n\r\n; note\r\n" + strOn, 0, 10},
      {"\xEF\xBB\xBF" + strOn, 0, 10},
      {Utf16(strOn, false), 0, 10},
      {Utf16(strOn, true), 0, 10},
      {"[hkey_local_machine\\SOFTWARE\\quillon\\TINTWRIGHT]\n \"DUMPMSG\" = DWORD:A ; note", 0, 10},
      {strOn + "\"DumpMsg\"=dword:1\n", 0, 1},
      {strKey + "\"DumpMsg\"=\"1\"\n", 0, -1},
      {strKey + "\"DumpMsg\"=hex(4):01,\\\n  00,00,00\n\"Other\"=dword:1\n", 0, -1},
      {strKey + ";\"DumpMsg\"=dword:1\n", 0, -1},
      {strKey + "\"DumpMsg\"=dword:123456789\n\"DumpMsg\"=dword:1x\n\"DumpMsg\"=dword:\n\"DumpMsg=dword:1\n", 0, -1},
      {strKey + "[HKEY_LOCAL_MACHINE\\SoftWare\\Other]\n\"DumpMsg\"=dword:1\n", 0, -1},
      {strKey + "[HKEY_LOCAL_MACHINE\\SoftWare\n\"DumpMsg\"=dword:1\n", 0, -1},
      {"[HKEY_LOCAL_MACHINE\\SoftWare\\Quillon\\Tintwright\\Below]\n\"DumpMsg\"=dword:1\n", 0, -1},
      {"[HKEY_LOCAL_MACHINE\\SoftWare\\Quillon\\TintwrightX]\n\"DumpMsg\"=dword:1\n", 2, -1},
      {"[HKEY_CURRENT_USER\\SoftWare\\Quillon\\Tintwright]\n\"DumpMsg\"=dword:1\n", 2, -1},
      {"", 2, -1},
      {strOn + "\xFF", 2, -1},
      {Utf16(strOn, false) + "x", 2, -1},
      {strOn + std::string(1024 * 1024, ';'), 2, -1}};
  setenv("SKIFFPORT_REGISTRY", (m_path + "/registry.reg").c_str(), 1);
  for (Row const &row : rows) {
    Write("registry.reg", row.strFile);
    HKEY hKey = nullptr;
    auto const open = [&] {
      return RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SoftWare\\Quillon\\Tintwright", 0, KEY_QUERY_VALUE, &hKey);
    };
    ASSERT_EQ(open(), row.nOpen) << row.strFile.substr(0, 200);
    if (row.nOpen != 0)
      continue;
    BYTE data[4] = {};
    DWORD dwType = 0, cb = 3;
    LONG const nResult = RegQueryValueExW(hKey, L"DumpMsg", nullptr, &dwType, data, &cb);
    EXPECT_EQ(nResult, row.nValue < 0 ? 2 : 234) << row.strFile;
    if (row.nValue >= 0) {
      EXPECT_EQ(cb, 4U);
      EXPECT_EQ(RegQueryValueExW(hKey, L"DumpMsg", nullptr, &dwType, data, &cb), 0);
      EXPECT_EQ(dwType, 4U);
      EXPECT_EQ(data[0] | data[1] | data[2] | data[3], row.nValue) << row.strFile;
    }
    EXPECT_EQ(RegCloseKey(hKey), 0);
    EXPECT_EQ(RegCloseKey(hKey), 6);
  }
  HKEY hKey = nullptr;
  setenv("SKIFFPORT_REGISTRY", m_path.c_str(), 1);
  EXPECT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SoftWare", 0, KEY_QUERY_VALUE, &hKey), 2) << "a directory";
  unsetenv("SKIFFPORT_REGISTRY");
}

} // namespace
