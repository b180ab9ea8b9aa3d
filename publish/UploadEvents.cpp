// How an uploader handles the transfer's calls: the two events that Python sees, and reading the service's reply.
// Thread: the owner thread, called by the proxy's window; only IsCancelled runs on the upload thread.
#include "publish/PyPresetUploader.h"

#include "platform/text/Text.h"
#include "reply/Document.h"
#include "reply/UrlText.h"
#include "trace/Trace.h"

namespace {

constexpr std::size_t kErrorSize = 260; // wide characters with the terminator; longer texts are cut
constexpr std::size_t kUrlSize = 2048;  // wide characters with the terminator, as much as DecodeURLText returns

// For the trace: rounded to the nearest integer; -1 if the total is 0.
int RoundedPercent(DWORD dwSent, DWORD dwTotal) {
  return MulDiv(100, static_cast<int>(dwSent), static_cast<int>(dwTotal));
}

// For the event: computed in single precision and truncated; 0 if the total is 0.
int EventPercent(DWORD dwSent, DWORD dwTotal) {
  return dwTotal ? static_cast<int>(static_cast<float>(dwSent) / static_cast<float>(dwTotal) * 100) : 0;
}

} // namespace

void PyPresetUploader::OnFileProgress(WCHAR const *wszPath, DWORD dwFileSent, DWORD dwFileTotal,
                                      DWORD dwFileTimeRemaining, DWORD dwAllSent, DWORD dwAllTotal,
                                      DWORD dwAllTimeRemaining, DWORD dwRate) {
  TraceMsgW(L" Cur File\t:: (%d)BytesSent / (%d)BytesTotal / (%d)%%, %d sec. remaining.", dwFileSent, dwFileTotal,
            RoundedPercent(dwFileSent, dwFileTotal), dwFileTimeRemaining);
  TraceMsgW(L" All Files  :: (%d)BytesSent / (%d)BytesTotal / (%d)%%, %d sec. remaining.", dwAllSent, dwAllTotal,
            RoundedPercent(dwAllSent, dwAllTotal), dwAllTimeRemaining);
  Fire("uuiiiiiiu", L"PROGRESS", L"ProgressChanged", EventPercent(dwAllSent, dwAllTotal), dwFileTimeRemaining,
       dwAllSent, dwAllTotal, dwAllTimeRemaining, dwRate, wszPath);
}

bool PyPresetUploader::IsCancelled() { return *m_bCancel != 0; }

void PyPresetUploader::OnBackgroundUploadBegin() { TraceMsgW(L" Background Upload (Begin) ! "); }

void PyPresetUploader::OnBackgroundUploadComplete(long hr) {
  TraceMsgW(L" Background Upload (End) hr(0x%x) ! ", static_cast<HRESULT>(hr));
  m_strUploadedFileUrl.clear();
  WCHAR wszError[kErrorSize] = {};
  UINT uThreadId = 0;
  int nKHID = 0;
  std::string strReply = EndThread(uThreadId, nKHID);
  if (!strReply.empty()) {
    try {
      ReadUploadReply(std::move(strReply), wszError, kErrorSize);
    } catch (std::bad_alloc const &) {
      // the same as a reply that does not parse
    }
  }
  int const nStatus = m_result.m_nHttpStatus;
  int const nAccepted = nStatus >= 200 && nStatus <= 299 ? 1 : 0;
  WCHAR wszUrl[kUrlSize] = {}; // a copy: this object may be destroyed before Fire has read it
  m_strUploadedFileUrl.copy(wszUrl, kUrlSize - 1);
  // Last, since the callable may start the next upload or destroy this object.
  Fire("uuiiuuii", L"PROGRESS", L"UploadComplete", 100, nAccepted, wszUrl, wszError, uThreadId, nKHID);
}

// Waits for the thread, which has posted its completion and is about to end. Returns: its reply.
std::string PyPresetUploader::EndThread(UINT &uThreadId, int &nKHID) {
  if (!m_pUploadThread)
    return {};
  uThreadId = m_pUploadThread->m_uThreadId;
  if (auto const it = m_mapTID2KHID.find(uThreadId); it != m_mapTID2KHID.end()) {
    nKHID = it->second;
    m_mapTID2KHID.erase(it);
  }
  m_pUploadThread->Wait();
  std::string strReply = std::move(m_pUploadThread->m_strReply);
  m_pUploadThread.reset();
  RemoveRunningUpload(m_bCancel);
  return strReply;
}

void PyPresetUploader::ReadUploadReply(std::string strReply, WCHAR *wszError, std::size_t cchError) {
  ComScope const com;
  CComPtr<IXMLDOMDocument> const pDocument = LoadReply(std::move(strReply), CLSCTX_ALL);
  CString strText;
  if (ReadElement(pDocument, L"uploadTemplate/templateUrl", strText) == ElementState::Found)
    m_strUploadedFileUrl = DecodeURLText(strText);
  ElementState const error = ReadElement(pDocument, L"uploadTemplate/errMsg", strText);
  if (error == ElementState::QueryFailed)
    TraceMsgW(L"Upload KH fail: Can not parse errMsg from xml.");
  else if (error == ElementState::Found)
    _snwprintf_s(wszError, cchError, _TRUNCATE, L"%s", strText.GetString());
}
