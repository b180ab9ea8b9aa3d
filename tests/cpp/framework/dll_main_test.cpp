// What the module does when it is attached to a process and detached from it. For the native platform only.
#include "framework/Wnd.h"

#include <gtest/gtest.h>

extern "C" BOOL WINAPI DllMain(HINSTANCE hInstance, DWORD dwReason, void *pReserved);

namespace {

TEST(DllMain, UnregistersTheWindowClassWhenTheModuleIsUnloaded) {
  WNDCLASSEXW found = {};
  found.cbSize = sizeof found;
  auto const isRegistered = [&] { return GetClassInfoExW(GetModuleHandleW(nullptr), kWndClassName, &found) != 0; };
  EXPECT_TRUE(DllMain(nullptr, DLL_PROCESS_ATTACH, nullptr));
  ASSERT_TRUE(AfxRegisterWndClass(0, nullptr, nullptr, nullptr) && isRegistered());
  int reserved = 0;
  EXPECT_TRUE(DllMain(nullptr, DLL_PROCESS_DETACH, &reserved) && isRegistered()) << "the end of the process";
  EXPECT_TRUE(DllMain(nullptr, DLL_PROCESS_DETACH, nullptr));
  EXPECT_FALSE(isRegistered());
}

} // namespace
