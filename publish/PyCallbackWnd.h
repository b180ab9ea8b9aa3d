// A Python callable with a hidden window, which belongs to the thread that constructs the object. No event of this
// system passes through the window. Thread: the owner thread, with the GIL.
#pragma once

#include "platform/window/Messages.h"
#include "publish/PyCallback.h"

class PyCallbackWnd : public PyCallback {
public:
  /// The name becomes the window's class name and title; null stands for "Callback Window". If the window can't be
  /// created, the object works without it. May throw std::bad_alloc.
  explicit PyCallbackWnd(WCHAR const *pszName = nullptr);
  ~PyCallbackWnd() override;

protected:
  virtual LRESULT WindowProc(UINT uMessage, WPARAM wParam, LPARAM lParam);

private:
  static LRESULT CALLBACK CallbackWndProc(HWND hWnd, UINT uMessage, WPARAM wParam, LPARAM lParam);

  DWORD m_dwSignature; ///< kAlive until destruction begins.
  HWND m_hWnd = nullptr;
};
