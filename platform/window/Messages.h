// Windows as addresses for messages: classes, hidden windows, posting, and the thread's message queue. A window belongs
// to the thread that created it; its messages run on that thread, inside PumpMessages. Thread: any, for every function
// here, unless its comment speaks of the calling thread's queue. Knows nothing of what messages mean.
#pragma once

#include "platform/base/Types.h"

struct HWND__;
using HWND = HWND__ *;
using HBRUSH = void *;
using HGDIOBJ = void *;
using HMENU = void *;
using ATOM = WORD;
using WNDPROC = LRESULT(CALLBACK *)(HWND, UINT, WPARAM, LPARAM);

constexpr UINT WM_APP = 0x8000;
constexpr DWORD WS_POPUP = 0x80000000;
constexpr DWORD WS_CLIPSIBLINGS = 0x04000000;
constexpr DWORD WS_CLIPCHILDREN = 0x02000000;
constexpr DWORD WS_CAPTION = 0x00C00000;
constexpr UINT CS_VREDRAW = 1;
constexpr UINT CS_HREDRAW = 2;
constexpr UINT CS_DBLCLKS = 8;
constexpr int GWL_STYLE = -16;
constexpr int GWLP_USERDATA = -21;
constexpr int NULL_BRUSH = 5;
constexpr UINT PM_REMOVE = 1;

struct WNDCLASSEXW {
  UINT cbSize;
  UINT style;
  WNDPROC lpfnWndProc;
  int cbClsExtra;
  int cbWndExtra;
  void *hInstance;
  void *hIcon;
  void *hCursor;
  HBRUSH hbrBackground;
  WCHAR const *lpszMenuName;
  WCHAR const *lpszClassName;
  void *hIconSm;
};

struct RECT {
  LONG left, top, right, bottom;
};

struct MSG {
  HWND hwnd;
  UINT message;
  WPARAM wParam;
  LPARAM lParam;
};

/// Registers a window class for the process. Returns: non-zero; 0 with 1410 (name registered already), 8 or 87.
/// Differs: only the class's name, which compares exactly, and its procedure matter.
SKIFFPORT_PLATFORM_API ATOM RegisterClassExW(WNDCLASSEXW const *pClass);

/// Creates a window of a registered class; the calling thread owns it. Returns: null with 1407 (no such class) or 8.
/// Differs: no screen, no parent, no messages at creation, no WM_CREATE.
SKIFFPORT_PLATFORM_API HWND CreateWindowExW(DWORD dwExStyle, WCHAR const *wszClass, WCHAR const *wszTitle,
                                            DWORD dwStyle, int x, int y, int cx, int cy, HWND hParent, HMENU hMenu,
                                            void *hInstance, void *pParam);

/// Destroys a window: its queued messages are dropped and later posts fail. Errors: FALSE with 1400. Differs: works
/// from any thread, sends nothing.
SKIFFPORT_PLATFORM_API BOOL DestroyWindow(HWND hWnd);
/// Does nothing; returns 0.
SKIFFPORT_PLATFORM_API LRESULT DefWindowProcW(HWND hWnd, UINT uMessage, WPARAM wParam, LPARAM lParam);
/// A window's attribute; the setter returns the previous value. Errors: 0 with 1400, or with 87 for another index.
/// Differs: GWL_STYLE and GWLP_USERDATA only.
SKIFFPORT_PLATFORM_API LONG_PTR GetWindowLongPtrW(HWND hWnd, int nIndex);
SKIFFPORT_PLATFORM_API LONG_PTR SetWindowLongPtrW(HWND hWnd, int nIndex, LONG_PTR nValue);
/// A stand-in for the brush that paints nothing. Differs: NULL_BRUSH only, else null.
SKIFFPORT_PLATFORM_API HGDIOBJ GetStockObject(int nObject);

/// Queues a message for the window's thread and returns at once; the posts of one thread keep their order.
/// Errors: FALSE with 1400 (no such window, its thread has ended, or it is the parent's in a forked child), 8.
/// Differs: the queue has no length limit; a null window is an error.
SKIFFPORT_PLATFORM_API BOOL PostMessageW(HWND hWnd, UINT uMessage, WPARAM wParam, LPARAM lParam);

/// Takes the window's first queued message within [uFirst, uLast] out of its queue without running it. Returns: FALSE
/// if there is none, and with 87 or 1400. Differs: a window must be given, PM_REMOVE only; works from any thread.
SKIFFPORT_PLATFORM_API BOOL PeekMessageW(MSG *pMessage, HWND hWnd, UINT uFirst, UINT uLast, UINT uRemove);

// What the host's event loop needs instead of Windows's message loop. Thread: each function acts on the
// calling thread's queue.

/// A descriptor that is readable while the calling thread's queue holds messages. The queue owns it; do not read, write
/// or close it. Creates the queue if the thread has none; in a forked child a new one replaces the parent's. Returns:
/// -1 if it can't be created.
SKIFFPORT_PLATFORM_API int MessageQueueDescriptor();

/// Runs up to `nLimit` messages that were queued at entry, in order. Calls may nest. Returns: how many ran; 0 for a
/// thread without a queue, and in a forked child until it has a queue of its own.
SKIFFPORT_PLATFORM_API int PumpMessages(int nLimit);

/// Waits until the calling thread's queue holds a message, at most `nMilliseconds` (-1: without limit).
/// Returns: 1 if it holds one; 0 if the time is up, and at once if no queue can be created and in a forked child until
/// it has a queue of its own; -1 if a signal came first.
SKIFFPORT_PLATFORM_API int WaitForMessages(int nMilliseconds);

/// Closes the calling thread's queue and its descriptor unless a window still needs them. Returns: TRUE if they are
/// closed.
SKIFFPORT_PLATFORM_API BOOL ReleaseMessageQueue();
