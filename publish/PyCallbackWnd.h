// A Python callable with a hidden window of its own, which belongs to the thread that constructs the object. No event
// of this system passes through the window.
#pragma once

#include "platform/window/Messages.h"
#include "publish/PyCallback.h"

class PyCallbackWnd : public PyCallback {
public:
  /// The name serves as class name and title; null stands for "Callback Window". Without a window the object goes on.
  explicit PyCallbackWnd(WCHAR const *pszName = nullptr);
  ~PyCallbackWnd() override;

protected:
  virtual LRESULT WindowProc(UINT uMessage, WPARAM wParam, LPARAM lParam);

private:
  static LRESULT CallbackWndProc(HWND hWnd, UINT uMessage, WPARAM wParam, LPARAM lParam);

  DWORD m_dwSignature; ///< kAlive until destruction begins.
  HWND m_hWnd = nullptr;
};
