// Carries progress calls from the upload thread to the owner thread, which created the proxy's hidden window: each call
// becomes a command posted to that window and runs on the receiver, in order, when the owner pumps its messages. Only
// IsCancelled calls the receiver directly. Knows nothing of Python.
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
  // Thread: the owner, for everything but the slots.

  /// The receiver is borrowed and must outlive the proxy.
  explicit CUploadProgressProxyWindow(BackgroundUploadProgress *pTarget);
  /// Frees the queued commands without running them and destroys the window.
  ~CUploadProgressProxyWindow() override;
  CRuntimeClass const *GetRuntimeClass() const override;

  DWORD GetNotifyMask() const { return m_dwNotifyMask; }
  /// Call it only before the upload starts.
  void SetNotifyMask(DWORD dwMask) { m_dwNotifyMask = dwMask; }
  /// Creates the hidden window, owned by the calling thread. On failure m_hWnd stays null and every call is lost.
  void CreateProxyWindow();
  /// Message handler: takes the command in lParam, runs it and frees it. The receiver may destroy the proxy meanwhile.
  /// Returns: 0.
  LRESULT OnCommandMessage(WPARAM wParam, LPARAM lParam);
  /// True, once, after a completion that could not be queued and so never reaches the receiver.
  bool TakeLostCompletion() { return m_bCompletionLost.exchange(false); }

  // The slots. Thread: any, in practice the upload thread. They do not throw: a call that can't be queued is lost; only
  // the completion is retried, for some seconds, when out of memory.
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
