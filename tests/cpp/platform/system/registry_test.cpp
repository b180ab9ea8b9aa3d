// The registry file: the forms that it may have, and what counts as no key or no number.
#include "platform/base/LastError.h"
#include "platform/system/Registry.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include <unistd.h>

namespace {

/// The number that the registry file gives "DumpMsg"; -1: it gives none, -2: it has no such key.
int ReadSwitch() {
  HKEY hKey = nullptr;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SoftWare\\Quillon\\Tintwright", 0, KEY_QUERY_VALUE, &hKey) != ERROR_SUCCESS)
    return -2;
  DWORD dwType = 0, dwValue = 0, cb = sizeof dwValue;
  LONG const nResult = RegQueryValueExW(hKey, L"DumpMsg", nullptr, &dwType, reinterpret_cast<BYTE *>(&dwValue), &cb);
  RegCloseKey(hKey);
  return nResult == ERROR_SUCCESS && dwType == 4 ? static_cast<int>(dwValue) : -1;
}

TEST(Registry, ReadsTheFileInItsForms) {
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
      {strOn + "\xFF", -2},
      {strWide + "x", -2},
      {strOn + std::string(1024 * 1024, ';'), -2}};
  char szPath[] = "/tmp/skiffport-registry-XXXXXX";
  close(mkstemp(szPath));
  setenv("SKIFFPORT_REGISTRY", szPath, 1);
  for (auto const &[strFile, nValue] : rows) {
    std::ofstream(szPath, std::ios::binary) << strFile;
    EXPECT_EQ(ReadSwitch(), nValue) << strFile.substr(0, 400);
  }
  std::filesystem::remove(szPath);
  unsetenv("SKIFFPORT_REGISTRY");
}

} // namespace
