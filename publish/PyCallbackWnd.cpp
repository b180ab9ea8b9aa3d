#include "publish/PyCallbackWnd.h"

namespace {

constexpr DWORD kAlive = 0x12345678;
constexpr DWORD kStyle = WS_CLIPSIBLINGS | WS_CLIPCHILDREN;

} // namespace

PyCallbackWnd::PyCallbackWnd(WCHAR const *pszName) : m_dwSignature(kAlive) {
  WCHAR const *const wszName = pszName ? pszName : L"Callback Window";
  WNDCLASSEXW windowClass = {};
  windowClass.cbSize = sizeof windowClass;
  windowClass.style = CS_VREDRAW | CS_HREDRAW | CS_DBLCLKS;
  windowClass.lpfnWndProc = CallbackWndProc;
  windowClass.hbrBackground = static_cast<HBRUSH>(GetStockObject(NULL_BRUSH));
  windowClass.lpszClassName = wszName;
  RegisterClassExW(&windowClass); // fails harmlessly when an earlier object has registered the class
  m_hWnd = CreateWindowExW(0, wszName, wszName, kStyle, 0, 0, 10, 10, nullptr, nullptr, nullptr, nullptr);
  if (!m_hWnd)
    return;
  SetWindowLongPtrW(m_hWnd, GWL_STYLE, GetWindowLongPtrW(m_hWnd, GWL_STYLE) & ~static_cast<LONG_PTR>(WS_CAPTION));
  SetWindowLongPtrW(m_hWnd, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
}

PyCallbackWnd::~PyCallbackWnd() {
  SetCallable(nullptr);
  if (m_hWnd)
    SetWindowLongPtrW(m_hWnd, GWLP_USERDATA, 0);
  m_dwSignature = 0;
  if (m_hWnd)
    DestroyWindow(m_hWnd);
}

LRESULT CALLBACK PyCallbackWnd::CallbackWndProc(HWND hWnd, UINT uMessage, WPARAM wParam, LPARAM lParam) {
  auto *const pObject = reinterpret_cast<PyCallbackWnd *>(GetWindowLongPtrW(hWnd, GWLP_USERDATA));
  if (pObject && pObject->m_dwSignature == kAlive)
    return pObject->WindowProc(uMessage, wParam, lParam);
  return DefWindowProcW(hWnd, uMessage, wParam, lParam);
}

LRESULT PyCallbackWnd::WindowProc(UINT uMessage, WPARAM wParam, LPARAM lParam) {
  return DefWindowProcW(m_hWnd, uMessage, wParam, lParam);
}
