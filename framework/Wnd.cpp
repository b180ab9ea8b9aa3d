// A window's user data points to its object; it is set and cleared on the window's own thread.
#include "framework/Wnd.h"

#include "platform/base/ForcedUnwind.h"
#include "platform/base/LastError.h"

namespace {

constexpr WCHAR kWndClassName[] = L"SkiffportWnd";

LRESULT CALLBACK CWndProc(HWND hWnd, UINT uMessage, WPARAM wParam, LPARAM lParam) {
  auto *const window = reinterpret_cast<CWnd *>(GetWindowLongPtrW(hWnd, GWLP_USERDATA));
  return window ? window->DispatchMessage(uMessage, wParam, lParam) : DefWindowProcW(hWnd, uMessage, wParam, lParam);
}

} // namespace

CRuntimeClass const CWnd::classCWnd = {"CWnd", nullptr};

WCHAR const *AfxRegisterWndClass(UINT uStyle, void *hCursor, void *hBrush, void *hIcon) {
  if (uStyle != 0 || hCursor || hBrush || hIcon) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  WNDCLASSEXW wndClass = {};
  wndClass.cbSize = sizeof wndClass;
  wndClass.lpfnWndProc = CWndProc;
  wndClass.lpszClassName = kWndClassName;
  bool const isRegistered = RegisterClassExW(&wndClass) != 0 || GetLastError() == ERROR_CLASS_ALREADY_EXISTS;
  return isRegistered ? kWndClassName : nullptr;
}

CWnd::~CWnd() { DestroyWindow(); }

CRuntimeClass const *CWnd::GetRuntimeClass() const { return &classCWnd; }

BOOL CWnd::CreateEx(DWORD dwExStyle, WCHAR const *wszClass, WCHAR const *wszTitle, DWORD dwStyle, RECT const &rect,
                    CWnd *pParent, UINT uId, void *pParam) {
  m_hWnd = CreateWindowExW(dwExStyle, wszClass, wszTitle, dwStyle, rect.left, rect.top, rect.right - rect.left,
                           rect.bottom - rect.top, pParent ? pParent->m_hWnd : nullptr,
                           reinterpret_cast<HMENU>(static_cast<std::uintptr_t>(uId)), nullptr, pParam);
  if (!m_hWnd)
    return FALSE;
  SetWindowLongPtrW(m_hWnd, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
  return TRUE;
}

BOOL CWnd::DestroyWindow() {
  if (!m_hWnd)
    return FALSE;
  SetWindowLongPtrW(m_hWnd, GWLP_USERDATA, 0);
  BOOL const isDestroyed = ::DestroyWindow(m_hWnd);
  m_hWnd = nullptr;
  return isDestroyed;
}

AFX_MSGMAP const *CWnd::GetMessageMap() const { return GetThisMessageMap(); }

AFX_MSGMAP const *CWnd::GetThisMessageMap() {
  static constexpr AFX_MSGMAP_ENTRY kEnd = {0, nullptr};
  static constexpr AFX_MSGMAP kMap = {nullptr, &kEnd};
  return &kMap;
}

LRESULT CWnd::DispatchMessage(UINT uMessage, WPARAM wParam, LPARAM lParam) try {
  for (AFX_MSGMAP const *map = GetMessageMap(); map; map = map->pBaseMap)
    for (AFX_MSGMAP_ENTRY const *entry = map->lpEntries; entry->nMessage != 0; ++entry)
      if (entry->nMessage == uMessage)
        return (this->*entry->pfn)(wParam, lParam);
  return DefWindowProcW(m_hWnd, uMessage, wParam, lParam);
} catch (ForcedUnwind const &) { // the thread is being ended inside the handler
  throw;
} catch (...) {
  return 0;
}
