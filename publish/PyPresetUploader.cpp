// Construction, start, cancel and destruction; UploadEvents.cpp handles the transfer's calls. Thread: the owner thread.
#include "publish/PyPresetUploader.h"

#include "framework/CW2A.h"
#include "platform/text/Text.h"
#include "publish/PresetForm.h"
#include "trace/Trace.h"

namespace {

constexpr DWORD kCancelWait = 5000; // ms in which a cancelled upload may end by itself
constexpr DWORD kAbortWait = 500;   // ms until it is aborted again

std::string Narrow(WCHAR const *wszText) { return CW2A(wszText).m_psz; }

} // namespace

PyPresetUploader::PyPresetUploader(WCHAR const *szKHServerUrl, WCHAR const *szKHLoginTokenID,
                                   WCHAR const *szProdVersion, WCHAR const *szVersionType, WCHAR const *szUUID) {
  TraceInit("PyPresetUploader");
  TraceMsgA("PyPresetUploader::PyPresetUploader() enter\n");
  m_strKHServerUrl = Narrow(szKHServerUrl);
  m_strLoginTokenID = Narrow(szKHLoginTokenID);
  m_strProdVersion = Narrow(szProdVersion);
  m_strVersionType = Narrow(szVersionType);
  m_strUUID = Narrow(szUUID);
  m_pProgressProxy = std::make_unique<CUploadProgressProxyWindow>(this);
  m_pProgressProxy->SetNotifyMask(m_pProgressProxy->GetNotifyMask() & ~(NOTIFY_SENDING_REQUEST | NOTIFY_REQUEST_SENT));
  m_pProgressProxy->CreateProxyWindow();
  TraceMsgA("PyPresetUploader::PyPresetUploader() end\n");
}

PyPresetUploader::~PyPresetUploader() {
  TraceMsgA("PyPresetUploader::~PyPresetUploader() enter\n");
  *m_bCancel = 1;
  if (m_pUploadThread) {
    // Again and again, in case the thread has not come to open its session.
    for (DWORD dwWait = kCancelWait; !m_pUploadThread->EndsWithin(dwWait); dwWait = kAbortWait)
      m_pUploadThread->Abort();
    m_pUploadThread->Wait();
    m_pUploadThread.reset();
  }
  RemoveRunningUpload(m_bCancel);
  m_pProgressProxy.reset(); // only now: the thread posts to the proxy's window until it ends
  TraceMsgA("PyPresetUploader::~PyPresetUploader() end\n");
}

// False if the thread can't be waited for.
bool PyPresetUploader::EnsureThreadWillEnd() {
  HANDLE const hThread = UploadThread();
  if (!hThread)
    return true;
  DWORD const dwState = WaitForSingleObject(hThread, 0);
  if (dwState != WAIT_TIMEOUT)
    return dwState != WAIT_FAILED;
  return !ProcessIsExiting();
}

void PyPresetUploader::operator delete(PyPresetUploader *pUploader, std::destroying_delete_t) {
  if (!pUploader->EnsureThreadWillEnd()) {
    pUploader->CancelUpload();
    pUploader->SetCallable(nullptr);
    RemoveRunningUpload(pUploader->m_bCancel);
    return; // leaked: the thread goes on using the object
  }
  pUploader->~PyPresetUploader();
  ::operator delete(pUploader);
}

BOOL PyPresetUploader::SetCallback(PyObject *callback) {
  SetCallable(callback);
  return 1;
}

PyObject *PyPresetUploader::GetUploadedFileUrl() { return Py_BuildValue("u", m_strUploadedFileUrl.c_str()); }

UINT PyPresetUploader::StartUpload(WCHAR const *szEffectFilePath, WCHAR const *szEffectCoverFilePathAfter,
                                   WCHAR const *szEffectCoverFilePathBefore, WCHAR const *szEffectThumbnailAfter,
                                   WCHAR const *szEffectThumbnailBefore, WCHAR const *szEffectCurveRGBImg,
                                   WCHAR const *szEffectCurveRImg, WCHAR const *szEffectCurveGImg,
                                   WCHAR const *szEffectCurveBImg, WCHAR const *szEffectLvRGBImg,
                                   WCHAR const *szEffectLvRImg, WCHAR const *szEffectLvGImg,
                                   WCHAR const *szEffectLvBImg, WCHAR const *szTemplateKey, WCHAR const *szTitle,
                                   WCHAR const *szCategory, WCHAR const *szTags, WCHAR const *szDescription,
                                   WCHAR const *szCollections, WCHAR const *szPIPtype, int nKHID) {
  TraceMsgA("PyPresetUploader::StartUpload() enter\n");
  // The form: which argument goes out under which name, in order.
  PresetFile const files[] = {
      {szEffectFilePath, L"PIPfile"},
      {szEffectCoverFilePathAfter, L"PIPimg", L"PIPimg_1"},
      {szEffectCoverFilePathBefore, L"PIPimg_2"},
      {szEffectThumbnailAfter, L"PIPimg_3"},
      {szEffectThumbnailBefore, L"PIPimg_4"},
      {szEffectCurveRGBImg, L"PIPimg_5"},
      {szEffectCurveRImg, L"PIPimg_6"},
      {szEffectCurveGImg, L"PIPimg_7"},
      {szEffectCurveBImg, L"PIPimg_8"},
      {szEffectLvRGBImg, L"PIPimg_9"},
      {szEffectLvRImg, L"PIPimg_10"},
      {szEffectLvGImg, L"PIPimg_11"},
      {szEffectLvBImg, L"PIPimg_12"},
  };
  PresetField const fields[] = {
      {"token", m_strLoginTokenID.c_str()},
      {"collections", szCollections, TextRule::Utf8UnlessEmpty},
      {"title", szTitle, TextRule::Utf8},
      {"tags", szTags, TextRule::Utf8UnlessEmpty},
      {"description", szDescription, TextRule::Utf8},
      {"category", szCategory, TextRule::Utf8},
      {"PIPtype", szPIPtype, TextRule::Utf8},
      {"templatetype", "PRESET"},
      {"templateKey", szTemplateKey, TextRule::Ansi},
      {"productName", "Quillon Tintwright"},
      {"versionInfo", m_strProdVersion.c_str()},
      {"AP", "TWR"},
      {"Version", m_strProdVersion.c_str()},
      {"AspectRatio", "1:1"},
      {"versionType", m_strVersionType.c_str()},
      {"uuid", m_strUUID.c_str()},
  };
  try {
    return PrepareAndStart(fields, files, nKHID);
  } catch (std::bad_alloc const &) {
    m_pUploadThread.reset(); // it has not started: nothing after Start throws
    return 0;
  }
}

UINT PyPresetUploader::PrepareAndStart(std::span<PresetField const> fields, std::span<PresetFile const> files,
                                       int nKHID) {
  if (!PresetFilesExist(files))
    return 0;
  // One upload at a time, its completion included; and without the proxy's window no completion would ever arrive.
  if (!UploadIsOver() || !m_pProgressProxy->m_hWnd)
    return 0;
  *m_bCancel = 0;
  m_strUploadedFileUrl.clear();
  m_result.m_nHttpStatus = -1; // the status of an earlier upload must not count for this one
  m_job.ClearFields();
  m_job.ClearFiles();
  SetUploadAddress();
  FillPresetForm(m_job, fields, files);

  m_pUploadThread = std::make_unique<UploadThread2>(&m_job, &m_result, m_pProgressProxy.get());
  m_pUploadThread->Start();
  UINT const uThreadId = m_pUploadThread->m_uThreadId;
  RecordUpload(uThreadId, nKHID);
  TraceMsgA("PyPresetUploader::StartUpload() end\n");
  return uThreadId;
}

// False while an upload runs or its completion is still queued. Cleans up after an upload whose completion was lost.
bool PyPresetUploader::UploadIsOver() {
  if (!UploadThread())
    return true;
  if (m_pProgressProxy->TakeLostCompletion()) {
    UINT uThreadId = 0;
    int nKHID = 0;
    EndThread(uThreadId, nKHID);
    return true;
  }
  return false;
}

// The thread is already running, so running out of memory here must not look like a refusal; a missing entry later
// reads as 0.
void PyPresetUploader::RecordUpload(UINT uThreadId, int nKHID) {
  try {
    m_mapTID2KHID[uThreadId] = nKHID;
  } catch (std::bad_alloc const &) {
    // see above
  }
  if (uThreadId != 0)
    AddRunningUpload(m_bCancel, UploadThread());
}

// A refused address leaves the job without a host, and the upload then fails in its first step.
void PyPresetUploader::SetUploadAddress() {
  char szAddress[_MAX_PATH] = {};
  int const nLength = _snprintf_s(szAddress, sizeof szAddress, _TRUNCATE, "https://%s/servlet/uploadTemplate",
                                  m_strKHServerUrl.c_str());
  TraceMsgW(L" upload address %S ", szAddress);
  if (nLength >= 0)
    m_job.SetUrl(szAddress);
}
