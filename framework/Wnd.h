// The window framework's base class and its message map, as far as a hidden window needs them. Thin and portable:
// written over the functions of Messages.h alone. Thread: the one that created the window, unless a function says
// otherwise.
#pragma once

#include "platform/window/Messages.h"

class CWnd;

/// The run-time class record of a framework class.
struct CRuntimeClass {
  char const *m_lpszClassName;
  CRuntimeClass const *m_pBaseClass;
};

using AFX_PMSG = LRESULT (CWnd::*)(WPARAM, LPARAM);
struct AFX_MSGMAP_ENTRY {
  UINT nMessage; // 0 in the last entry
  AFX_PMSG pfn;
};
struct AFX_MSGMAP {
  AFX_MSGMAP const *pBaseMap;
  AFX_MSGMAP_ENTRY const *lpEntries;
};

/// Registers the class of CWnd windows, once per process and for good. Thread: any. Returns: its name; null on failure.
/// Differs: style 0 and no cursor, brush or icon.
WCHAR const *AfxRegisterWndClass(UINT uStyle, void *hCursor, void *hBrush, void *hIcon);

class CWnd {
public:
  CWnd() = default;
  CWnd(CWnd const &) = delete;
  CWnd &operator=(CWnd const &) = delete;
  virtual ~CWnd(); ///< Destroys the window if there is one.
  virtual CRuntimeClass const *GetRuntimeClass() const;

  /// Creates the window; the calling thread owns it. Returns: FALSE on failure, with m_hWnd null.
  BOOL CreateEx(DWORD dwExStyle, WCHAR const *wszClass, WCHAR const *wszTitle, DWORD dwStyle, RECT const &rect,
                CWnd *pParent, UINT uId, void *pParam = nullptr);
  /// Destroys the window; m_hWnd is null afterwards.
  BOOL DestroyWindow();

  HWND m_hWnd = nullptr;

protected:
  virtual AFX_MSGMAP const *GetMessageMap() const;
  static AFX_MSGMAP const *GetThisMessageMap();

public:
  /// Runs the message's handler from the object's message map, or DefWindowProcW. Lets no exception escape but
  /// ForcedUnwind, and does not touch the object after a handler has run, since that may have deleted it.
  LRESULT DispatchMessage(UINT uMessage, WPARAM wParam, LPARAM lParam);
  static CRuntimeClass const classCWnd;
};
