// What PyPresetUploader does with the transfer's calls: the two events that Python sees, and the reading of the
// service's reply. Runs on the owner thread, out of the proxy window; only IsCancelled runs on the upload thread.
#include "publish/PyPresetUploader.h"

#include "framework/ComTypes.h"
#include "platform/text/Text.h"
#include "platform/xml/XmlDom.h"
#include "reply/UrlText.h"
#include "shell/Trace.h"

namespace {

constexpr std::size_t kErrorSize = 260; // wide characters, terminator included; a longer text is cut
constexpr std::size_t kUrlSize = 2048;  // wide characters, terminator included, as the decoder gives it

// For the trace: the nearest integer. -1 while the total is 0.
int RoundedPercent(DWORD dwSent, DWORD dwTotal) {
  return MulDiv(100, static_cast<int>(dwSent), static_cast<int>(dwTotal));
}

// For the event: truncated, in single precision. 0 while the total is 0.
int EventPercent(DWORD dwSent, DWORD dwTotal) {
  return dwTotal ? static_cast<int>(static_cast<float>(dwSent) / static_cast<float>(dwTotal) * 100) : 0;
}

// Initialises COM for a scope, as far as the thread lets it.
class ComScope {
public:
  ComScope() : m_hr(CoInitialize(nullptr)) {}
  ComScope(ComScope const &) = delete;
  ComScope &operator=(ComScope const &) = delete;
  ~ComScope() {
    if (SUCCEEDED(m_hr))
      CoUninitialize();
  }

private:
  HRESULT m_hr;
};

// The first element at a path. Negative: the query failed. Otherwise `bFound` tells whether there is one, with its
// text.
HRESULT FindText(IXMLDOMDocument *pDocument, WCHAR const *wszPath, bool &bFound, CComBSTR &bstrText) {
  CComPtr<IXMLDOMNode> pNode;
  HRESULT const hr = pDocument->selectSingleNode(CComBSTR(wszPath), &pNode);
  bFound = SUCCEEDED(hr) && pNode && SUCCEEDED(pNode->get_text(&bstrText));
  return hr;
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
  std::string const strReply = EndThread(uThreadId, nKHID);
  if (!strReply.empty()) {
    try {
      ReadUploadReply(strReply, wszError, kErrorSize);
    } catch (std::bad_alloc const &) {
      // as a reply that doesn't parse
    }
  }
  int const nAccepted = static_cast<unsigned>(m_result.m_nHttpStatus) - 200U < 100U ? 1 : 0;
  WCHAR wszUrl[kUrlSize] = {}; // of its own: this object may be gone before it is read
  m_strUploadedFileUrl.copy(wszUrl, kUrlSize - 1);
  // Last: the callable may start the next upload, or destroy this object.
  Fire("uuiiuuii", L"PROGRESS", L"UploadComplete", 100, nAccepted, wszUrl, wszError, uThreadId, nKHID);
}

// Waits for the thread, which has posted its completion and is about to end, and takes its reply.
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
  ForgetRunningUpload(m_bCancel);
  return strReply;
}

void PyPresetUploader::ReadUploadReply(std::string const &strReply, WCHAR *wszError, std::size_t cchError) {
  ComScope const com;
  CComPtr<IXMLDOMDocument> pDocument;
  if (FAILED(CoCreateInstance(CLSID_DOMDocument, nullptr, CLSCTX_ALL, IID_IXMLDOMDocument,
                              reinterpret_cast<void **>(&pDocument))))
    return;
  pDocument->loadXML(CComBSTR(strReply.c_str()), nullptr);
  bool bFound = false;
  if (CComBSTR bstrUrl; SUCCEEDED(FindText(pDocument, L"uploadTemplate/templateUrl", bFound, bstrUrl)) && bFound)
    m_strUploadedFileUrl = DecodeURLText(bstrUrl);
  CComBSTR bstrError;
  if (FAILED(FindText(pDocument, L"uploadTemplate/errMsg", bFound, bstrError)))
    TraceMsgW(L"Upload KH fail: Can not parse errMsg from xml.");
  else if (bFound)
    _snwprintf_s(wszError, cchError, _TRUNCATE, L"%s", static_cast<BSTR>(bstrError));
}
