#include "publish/CUploadProgressProxyWindow.h"

#include "platform/base/Clock.h"
#include "platform/base/LastError.h"
#include "publish/Command.h"

#include <new>

namespace {

constexpr int kCompletionTries = 100;
constexpr DWORD kCompletionPause = 50; // ms

constexpr CRuntimeClass kRuntimeClass = {"CUploadProgressProxyWindow", &CWnd::classCWnd};

// Registered once, by the first proxy of the process.
WCHAR const *WindowClass() {
  static std::atomic<WCHAR const *> s_wszClass = nullptr; // stays null if registration fails, to be tried again
  if (!s_wszClass)
    s_wszClass = AfxRegisterWndClass(0, nullptr, nullptr, nullptr);
  return s_wszClass;
}

} // namespace

CUploadProgressProxyWindow::CUploadProgressProxyWindow(BackgroundUploadProgress *pTarget) : m_pTarget(pTarget) {
  WindowClass();
}

CUploadProgressProxyWindow::~CUploadProgressProxyWindow() {
  m_pTarget = nullptr;
  DropQueued();
  DestroyWindow();
}

// Destroying the window would drop its messages but not free the commands that they point to.
void CUploadProgressProxyWindow::DropQueued() {
  for (MSG message; m_hWnd && PeekMessageW(&message, m_hWnd, WM_UPLOAD_COMMAND, WM_UPLOAD_COMMAND, PM_REMOVE);)
    delete reinterpret_cast<Command *>(message.lParam);
}

CRuntimeClass const *CUploadProgressProxyWindow::GetRuntimeClass() const { return &kRuntimeClass; }

AFX_MSGMAP const *CUploadProgressProxyWindow::GetMessageMap() const {
  static constexpr AFX_MSGMAP_ENTRY kEntries[] = {
      {WM_UPLOAD_COMMAND, static_cast<AFX_PMSG>(&CUploadProgressProxyWindow::OnCommandMessage)}, {0, nullptr}};
  static AFX_MSGMAP const map = {CWnd::GetThisMessageMap(), kEntries};
  return &map;
}

void CUploadProgressProxyWindow::CreateProxyWindow() {
  CreateEx(0, WindowClass(), nullptr, WS_POPUP, RECT{0, 0, 0, 0}, nullptr, 0);
}

LRESULT CUploadProgressProxyWindow::OnCommandMessage(WPARAM, LPARAM lParam) {
  std::unique_ptr<Command> const pCommand(reinterpret_cast<Command *>(lParam));
  pCommand->Execute();
  return 0; // touch no member here: the receiver may have destroyed this object
}

CUploadProgressProxyWindow::Posted CUploadProgressProxyWindow::PostOwned(std::unique_ptr<Command> pCommand) {
  if (!m_hWnd)
    return Posted::No;
  Posted posted = Posted::Yes;
  if (PostMessageW(m_hWnd, WM_UPLOAD_COMMAND, 0, reinterpret_cast<LPARAM>(pCommand.get())))
    static_cast<void>(pCommand.release()); // now owned by the queue
  else
    posted = GetLastError() == ERROR_NOT_ENOUGH_MEMORY ? Posted::NoMemory : Posted::No;
  Sleep(0);
  return posted;
}

// The one place where a call becomes a command. A call that can't be queued is lost.
template <class SomeCommand, class... Arguments>
CUploadProgressProxyWindow::Posted CUploadProgressProxyWindow::Post(Arguments... arguments) {
  try {
    return PostOwned(std::make_unique<SomeCommand>(m_pTarget, arguments...));
  } catch (std::bad_alloc const &) {
    return Posted::NoMemory;
  }
}

void CUploadProgressProxyWindow::OnResolvingName(WCHAR const *wszText) {
  Post<StringCommand>(&BackgroundUploadProgress::OnResolvingName, wszText);
}

void CUploadProgressProxyWindow::OnNameResolved(WCHAR const *wszText) {
  Post<StringCommand>(&BackgroundUploadProgress::OnNameResolved, wszText);
}

void CUploadProgressProxyWindow::OnConnectingToServer(WCHAR const *wszText) {
  Post<StringCommand>(&BackgroundUploadProgress::OnConnectingToServer, wszText);
}

void CUploadProgressProxyWindow::OnConnectedToServer(WCHAR const *wszText) {
  Post<StringCommand>(&BackgroundUploadProgress::OnConnectedToServer, wszText);
}

void CUploadProgressProxyWindow::OnSendingRequest() {
  if (m_dwNotifyMask & NOTIFY_SENDING_REQUEST)
    Post<VoidCommand>(&BackgroundUploadProgress::OnSendingRequest);
}

void CUploadProgressProxyWindow::OnRequestSent(DWORD dwBytes) {
  if (m_dwNotifyMask & NOTIFY_REQUEST_SENT)
    Post<DwordCommand>(&BackgroundUploadProgress::OnRequestSent, dwBytes);
}

void CUploadProgressProxyWindow::OnReceivingResponse() {
  Post<VoidCommand>(&BackgroundUploadProgress::OnReceivingResponse);
}

void CUploadProgressProxyWindow::OnResponseReceived(DWORD dwBytes) {
  Post<DwordCommand>(&BackgroundUploadProgress::OnResponseReceived, dwBytes);
}

void CUploadProgressProxyWindow::OnClosingConnection() {
  Post<VoidCommand>(&BackgroundUploadProgress::OnClosingConnection);
}

void CUploadProgressProxyWindow::OnConnectionClosed() {
  Post<VoidCommand>(&BackgroundUploadProgress::OnConnectionClosed);
}

void CUploadProgressProxyWindow::OnFileBegin(WCHAR const *wszPath) {
  Post<StringCommand>(&BackgroundUploadProgress::OnFileBegin, wszPath);
}

void CUploadProgressProxyWindow::OnFileProgress(WCHAR const *wszPath, DWORD dwFileSent, DWORD dwFileTotal,
                                                DWORD dwFileTimeRemaining, DWORD dwAllSent, DWORD dwAllTotal,
                                                DWORD dwAllTimeRemaining, DWORD dwRate) {
  Post<OnFileProgressCommand>(wszPath, ProgressReport{dwFileSent, dwFileTotal, dwFileTimeRemaining, dwAllSent,
                                                      dwAllTotal, dwAllTimeRemaining, dwRate});
}

void CUploadProgressProxyWindow::OnFileComplete(WCHAR const *wszPath, HRESULT hr) {
  Post<OnFileCompleteCommand>(wszPath, hr);
}

bool CUploadProgressProxyWindow::IsCancelled() { return m_pTarget->IsCancelled(); }

void CUploadProgressProxyWindow::OnBackgroundUploadBegin() {
  Post<VoidCommand>(&BackgroundUploadProgress::OnBackgroundUploadBegin);
}

void CUploadProgressProxyWindow::OnBackgroundUploadComplete(long hr) {
  class OnBackgroundUploadCompleteCommand : public UploadProgressCommand {
  public:
    OnBackgroundUploadCompleteCommand(BackgroundUploadProgress *pTarget, long hr)
        : UploadProgressCommand(pTarget), m_hr(hr) {}
    void Execute() override { m_pTarget->OnBackgroundUploadComplete(m_hr); }

  private:
    long m_hr;
  };
  // The only call that is retried: the host waits for it and no later call replaces it, so a passing shortage of memory
  // must not lose it. A window that is gone stays gone.
  Posted posted = Post<OnBackgroundUploadCompleteCommand>(hr);
  for (int nTry = 1; posted == Posted::NoMemory && nTry < kCompletionTries; ++nTry) {
    Sleep(kCompletionPause);
    posted = Post<OnBackgroundUploadCompleteCommand>(hr);
  }
  m_bCompletionLost = posted != Posted::Yes;
}
