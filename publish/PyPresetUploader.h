// The object that Python holds to publish a colour preset. Constructed, called and destroyed on one thread, its owner
// thread, which pumps messages; events arrive on it only. One upload at a time.
#pragma once

#include "publish/PyCallbackWnd.h" // Python.h comes first

#include "publish/CUploadProgressProxyWindow.h"
#include "publish/ExitHook.h"
#include "publish/PresetForm.h"
#include "upload/UploadThread2.h"

#include <map>
#include <memory>
#include <new>
#include <span>
#include <string>

class PyPresetUploader : public PyCallbackWnd, public BackgroundUploadProgress {
public:
  /// Service host (no scheme, at most 228 bytes), login token, product version, version type and installation uuid; all
  /// are copied. A null counts as empty; an empty or unusable host shows as a failed upload. May throw std::bad_alloc.
  PyPresetUploader(WCHAR const *szKHServerUrl, WCHAR const *szKHLoginTokenID, WCHAR const *szProdVersion,
                   WCHAR const *szVersionType, WCHAR const *szUUID);
  /// Cancels a running upload and waits for its thread, as long as one blocking write may take; no event follows.
  ~PyPresetUploader() override;
  /// Destroys the object, unless a thread that can't be waited for still uses it: then it is left alone. That is so in
  /// a forked child, at exit after the exit hook, and for a thread that can't be made to run.
  static void operator delete(PyPresetUploader *pUploader, std::destroying_delete_t);

  /// Sets the callable of the events; None takes it away. Returns: 1.
  BOOL SetCallback(PyObject *callback);

  /// Starts the upload of thirteen files and seven texts in the background. Everything is copied.
  /// Returns: the upload's thread id; 0 if a path is null or names nothing, while an upload runs or its completion
  /// waits, or if the thread can't be had. After 0 no event follows. An upload whose completion was lost is over, and
  /// has no event any more.
  UINT StartUpload(WCHAR const *szEffectFilePath, WCHAR const *szEffectCoverFilePathAfter,
                   WCHAR const *szEffectCoverFilePathBefore, WCHAR const *szEffectThumbnailAfter,
                   WCHAR const *szEffectThumbnailBefore, WCHAR const *szEffectCurveRGBImg,
                   WCHAR const *szEffectCurveRImg, WCHAR const *szEffectCurveGImg, WCHAR const *szEffectCurveBImg,
                   WCHAR const *szEffectLvRGBImg, WCHAR const *szEffectLvRImg, WCHAR const *szEffectLvGImg,
                   WCHAR const *szEffectLvBImg, WCHAR const *szTemplateKey, WCHAR const *szTitle,
                   WCHAR const *szCategory, WCHAR const *szTags, WCHAR const *szDescription, WCHAR const *szCollections,
                   WCHAR const *szPIPtype, int nKHID);
  /// Asks a running upload to stop; it ends with its ordinary completion event. Does nothing to a later one.
  void CancelUpload() { *m_bCancel = 1; }
  /// New reference to a str: the published address of the last upload, empty before its completion.
  PyObject *GetUploadedFileUrl();

  std::map<unsigned int, int> m_mapTID2KHID; ///< Thread id of a running upload to the caller's number for it.

private:
  // The receiver's side: IsCancelled on the upload thread, everything else on the owner thread.
  void OnResolvingName(WCHAR const *) override {}
  void OnNameResolved(WCHAR const *) override {}
  void OnConnectingToServer(WCHAR const *) override {}
  void OnConnectedToServer(WCHAR const *) override {}
  void OnSendingRequest() override {}
  void OnRequestSent(DWORD) override {}
  void OnReceivingResponse() override {}
  void OnResponseReceived(DWORD) override {}
  void OnClosingConnection() override {}
  void OnConnectionClosed() override {}
  void OnFileBegin(WCHAR const *) override {}
  void OnFileProgress(WCHAR const *wszPath, DWORD dwFileSent, DWORD dwFileTotal, DWORD dwFileTimeRemaining,
                      DWORD dwAllSent, DWORD dwAllTotal, DWORD dwAllTimeRemaining, DWORD dwRate) override;
  void OnFileComplete(WCHAR const *, HRESULT) override {}
  bool IsCancelled() override;
  void OnBackgroundUploadBegin() override;
  void OnBackgroundUploadComplete(long hr) override;

  UINT PrepareAndStart(std::span<PresetField const> fields, std::span<PresetFile const> files, int nKHID);
  void SetUploadAddress();
  void NoteUpload(UINT uThreadId, int nKHID);
  std::string EndThread(UINT &uThreadId, int &nKHID);
  void ReadUploadReply(std::string const &strReply, WCHAR *wszError, std::size_t cchError);
  HANDLE UploadThread() const { return m_pUploadThread ? m_pUploadThread->m_hThread : nullptr; }
  bool UploadIsOver();
  bool MakeThreadEndSomeTime();

  std::string m_strKHServerUrl;
  std::string m_strLoginTokenID;
  std::string m_strUUID;
  std::string m_strProdVersion;
  std::string m_strVersionType;
  std::wstring m_strUploadedFileUrl;
  UploadJob m_job;       // the upload thread's while one runs
  UploadResult m_result; // the same
  std::unique_ptr<UploadThread2> m_pUploadThread;
  std::unique_ptr<CUploadProgressProxyWindow> m_pProgressProxy;
  // Set on the owner thread and by the exit hook, read on the upload thread.
  CancelFlag const m_bCancel = std::make_shared<std::atomic<BYTE>>(BYTE(0));
};
