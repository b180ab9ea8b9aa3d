// Carries progress calls from the upload thread to the thread that created the proxy's hidden window: each call becomes
// a command posted to that window, and runs there on the receiver when the thread pumps its messages, in the order of
// the calls. Only IsCancelled goes straight through. Knows nothing of Python.
#pragma once

#include "framework/Wnd.h"
#include "upload/UploadProgress.h"

#include <atomic>
#include <memory>

class Command;

constexpr UINT WM_UPLOAD_COMMAND = WM_APP + 42;
constexpr DWORD NOTIFY_SENDING_REQUEST = 1; ///< Mask bit that lets OnSendingRequest through.
constexpr DWORD NOTIFY_REQUEST_SENT = 2;    ///< Mask bit that lets OnRequestSent through.

class CUploadProgressProxyWindow : public CWnd, public BackgroundUploadProgress {
public:
  /// The receiver is borrowed and outlives the proxy. Thread: the owner, for everything but the slots.
  explicit CUploadProgressProxyWindow(BackgroundUploadProgress *pTarget);
  /// Frees the commands that still wait, without running them, and ends the window.
  ~CUploadProgressProxyWindow() override;
  CRuntimeClass const *GetRuntimeClass() const override;

  DWORD GetNotifyMask() const { return m_dwNotifyMask; }
  /// Before the upload starts only.
  void SetNotifyMask(DWORD dwMask) { m_dwNotifyMask = dwMask; }
  /// Creates the hidden window, owned by the calling thread. On failure m_hWnd stays null and every post is lost.
  void CreateProxyWindow();
  /// Message handler: runs the command in lParam and frees it. The receiver may destroy the proxy meanwhile.
  LRESULT OnCommandMessage(WPARAM wParam, LPARAM lParam);
  /// True, once, after a completion that could not be queued: the receiver will not see it.
  bool TakeLostCompletion() { return m_bCompletionLost.exchange(false); }

  // The slots. Thread: any, in practice the upload thread. Nothing escapes: a call that can't be queued is lost, except
  // that the completion is tried again for some seconds while memory is short.
  void OnResolvingName(WCHAR const *wszText) override;
  void OnNameResolved(WCHAR const *wszText) override;
  void OnConnectingToServer(WCHAR const *wszText) override;
  void OnConnectedToServer(WCHAR const *wszText) override;
  void OnSendingRequest() override;
  void OnRequestSent(DWORD dwBytes) override;
  void OnReceivingResponse() override;
  void OnResponseReceived(DWORD dwBytes) override;
  void OnClosingConnection() override;
  void OnConnectionClosed() override;
  void OnFileBegin(WCHAR const *wszPath) override;
  void OnFileProgress(WCHAR const *wszPath, DWORD dwFileSent, DWORD dwFileTotal, DWORD dwFileTimeRemaining,
                      DWORD dwAllSent, DWORD dwAllTotal, DWORD dwAllTimeRemaining, DWORD dwRate) override;
  void OnFileComplete(WCHAR const *wszPath, HRESULT hr) override;
  bool IsCancelled() override;
  void OnBackgroundUploadBegin() override;
  void OnBackgroundUploadComplete(long hr) override;

protected:
  AFX_MSGMAP const *GetMessageMap() const override;

private:
  enum class Posted { Yes, NoMemory, No };
  template <class SomeCommand, class... Arguments> Posted Post(Arguments... arguments);
  Posted PostOwned(std::unique_ptr<Command> pCommand);
  void DropQueued();

  BackgroundUploadProgress *m_pTarget;
  DWORD m_dwNotifyMask = 0xFFFFFFFF;
  std::atomic<bool> m_bCompletionLost = false;
};
