// Wrong arguments and wrong handles: each interface function fails with its error number, and nothing crashes.
#include "framework/Wnd.h"
#include "platform/base/Handles.h"
#include "platform/base/LastError.h"
#include "platform/http/WinInet.h"
#include "platform/system/Files.h"
#include "platform/system/Registry.h"
#include "platform/system/Threads.h"
#include "platform/window/Messages.h"
#include "platform/xml/XmlDom.h"

#include <gtest/gtest.h>

namespace {

/// A call that fails, and the error number that it sets. The line says which.
struct Misuse {
  int line;
  DWORD error;
  bool (*succeeds)();
};
#define MISUSE(error, call)                                                                                            \
  Misuse {                                                                                                             \
    __LINE__, error, [] { return static_cast<bool>(call); }                                                            \
  }

HINTERNET Session() {
  static HINTERNET const session = InternetOpenW(L"agent", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0);
  return session;
}
HINTERNET Connection() {
  static HINTERNET const connection = InternetConnectW(Session(), L"h.test", 80, nullptr, nullptr, 3, 0, 0);
  return connection;
}
HINTERNET Request() {
  static HINTERNET const request = HttpOpenRequestW(Connection(), L"GET", L"/", nullptr, nullptr, nullptr, 0, 0);
  return request;
}
HINTERNET Open(char const *verb, char const *object) {
  return HttpOpenRequestA(Connection(), verb, object, nullptr, nullptr, nullptr, 0, 0);
}
HANDLE Duplicate(HANDLE source) {
  HANDLE copy = nullptr;
  return DuplicateHandle(GetCurrentProcess(), source, GetCurrentProcess(), &copy, 0, FALSE, DUPLICATE_SAME_ACCESS)
             ? copy
             : nullptr;
}
HANDLE OpenToWrite() {
  HANDLE const hFile = CreateFileW(L"/dev/null", 0x40000000, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  return hFile == INVALID_HANDLE_VALUE ? nullptr : hFile;
}
HWND CreateOfClass(WCHAR const *name, HWND hParent) {
  return CreateWindowExW(0, name, L"", 0, 0, 0, 0, 0, hParent, nullptr, nullptr, nullptr);
}

DWORD g_value = 0;
auto *const kNoWindow = reinterpret_cast<HWND>(0x4444);
HANDLE const kNoHandle = reinterpret_cast<HANDLE>(0x4444);

Misuse const kMisuses[] = {
    MISUSE(87, InternetOpenW(L"agent\r\nX: 1", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0)),
    MISUSE(6, InternetConnectW(kNoHandle, L"h.test", 80, nullptr, nullptr, 3, 0, 0)),
    MISUSE(12018, InternetConnectW(Connection(), L"h.test", 80, nullptr, nullptr, 3, 0, 0)),
    MISUSE(12018, HttpOpenRequestA(Session(), "GET", "/", nullptr, nullptr, nullptr, 0, 0)),
    MISUSE(87, Open("PUT", "/")),
    MISUSE(12006, InternetOpenUrlA(Session(), "ftp://h.test/", nullptr, 0, 0, 0)),
    MISUSE(12005, InternetOpenUrlA(Session(), "http://a b/", nullptr, 0, 0, 0)),
    MISUSE(12018, InternetOpenUrlA(Request(), "http://h.test/", nullptr, 0, 0, 0)),
    MISUSE(87, HttpAddRequestHeadersA(Request(), "no colon", 0xFFFFFFFF, HTTP_ADDREQ_FLAG_ADD)),
    MISUSE(87, HttpSendRequestW(Request(), L"no colon", 0xFFFFFFFF, nullptr, 0)),
    MISUSE(87, HttpSendRequestW(Request(), nullptr, 0, "body", 4)),
    MISUSE(12019, HttpQueryInfoW(Request(), HTTP_QUERY_STATUS_CODE, nullptr, &g_value, nullptr)),
    MISUSE(12019, InternetReadFile(Request(), &g_value, 1, &g_value)),
    MISUSE(12019, HttpEndRequestW(Request(), nullptr, 0, 0)),
    MISUSE(12009, InternetSetOptionW(Session(), 9999, &g_value, sizeof g_value)),
    MISUSE(87, InternetSetOptionW(Session(), INTERNET_OPTION_SEND_TIMEOUT, &g_value, 3)),
    MISUSE(12018, InternetSetOptionW(Session(), INTERNET_OPTION_SECURITY_FLAGS, &g_value, sizeof g_value)),
    MISUSE(6, InternetSetStatusCallbackW(kNoHandle, nullptr)),
    MISUSE(6, InternetCloseHandle(nullptr)),
    MISUSE(87, RegisterClassExW(nullptr)),
    MISUSE(1407, CreateOfClass(L"unheard of", nullptr)),
    MISUSE(87, CreateOfClass(L"unheard of", kNoWindow)),
    MISUSE(1400, DestroyWindow(kNoWindow)),
    MISUSE(1400, GetWindowLongPtrW(kNoWindow, GWL_STYLE)),
    MISUSE(1400, SetWindowLongPtrW(kNoWindow, GWL_STYLE, 1)),
    MISUSE(1400, PostMessageW(kNoWindow, 1, 0, 0)),
    MISUSE(87, PeekMessageW(nullptr, kNoWindow, 0, 0, PM_REMOVE)),
    MISUSE(6, Duplicate(kNoHandle)),
    MISUSE(6, CloseHandle(kNoHandle)),
    MISUSE(87, OpenToWrite()),
    MISUSE(87, ReadFile(kNoHandle, &g_value, 1, &g_value, &g_value)),
    MISUSE(6, GetFileSize(kNoHandle, nullptr) != INVALID_FILE_SIZE),
    MISUSE(87, AfxRegisterWndClass(CS_DBLCLKS, nullptr, nullptr, nullptr)),
    MISUSE(6, ReadFile(kNoHandle, &g_value, 1, &g_value, nullptr)),
    MISUSE(87, _beginthreadex(nullptr, 0, nullptr, nullptr, 0, nullptr)),
    MISUSE(6, ResumeThread(kNoHandle) != 0xFFFFFFFF),
    MISUSE(6, WaitForSingleObject(kNoHandle, 0) != WAIT_FAILED),
    MISUSE(6, GetExitCodeThread(kNoHandle, &g_value)),
};

TEST(Misuse, FailsWithItsErrorNumber) {
  for (Misuse const &misuse : kMisuses) {
    SetLastError(0);
    EXPECT_FALSE(misuse.succeeds()) << "line " << misuse.line;
    EXPECT_EQ(misuse.error, GetLastError()) << "line " << misuse.line;
  }
  EXPECT_TRUE(InternetCloseHandle(Session())); // and with it everything below it
}

TEST(Misuse, OfADocumentAndOfTheRegistryIsAResult) {
  void *object = nullptr;
  EXPECT_EQ(E_INVALIDARG,
            CoCreateInstance(CLSID_DOMDocument, nullptr, CLSCTX_INPROC_SERVER, IID_IXMLDOMDocument, nullptr));
  for (GUID const *wrong : {&CLSID_DOMDocument, &IID_IXMLDOMDocument})
    EXPECT_TRUE(FAILED(CoCreateInstance(*wrong, nullptr, CLSCTX_INPROC_SERVER, *wrong, &object)));
  ASSERT_EQ(S_OK, CoCreateInstance(CLSID_DOMDocument, nullptr, CLSCTX_INPROC_SERVER, IID_IXMLDOMDocument, &object));
  auto *const document = static_cast<IXMLDOMDocument *>(object);
  VARIANT value;
  EXPECT_EQ(S_FALSE, document->get_nodeValue(&value));
  IXMLDOMNamedNodeMap *attributes = nullptr;
  EXPECT_EQ(S_FALSE, document->get_attributes(&attributes));
  for (HRESULT const result :
       {document->get_nodeName(nullptr), document->get_nodeValue(nullptr), document->get_nodeType(nullptr),
        document->get_firstChild(nullptr), document->get_nextSibling(nullptr), document->get_attributes(nullptr),
        document->get_text(nullptr), document->selectSingleNode(nullptr, nullptr)})
    EXPECT_EQ(E_INVALIDARG, result);
  EXPECT_EQ(0u, document->Release());
  HKEY key = nullptr;
  EXPECT_EQ(6, RegOpenKeyExW(nullptr, L"Software", 0, KEY_QUERY_VALUE, &key));
  EXPECT_EQ(87, RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"Software", 0, KEY_QUERY_VALUE, nullptr));
  EXPECT_EQ(6, RegQueryValueExW(nullptr, L"Debug", nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(6, RegCloseKey(nullptr));
}

} // namespace
