// The object that Python holds to publish a colour preset, one upload at a time.
// Thread: constructed, called and destroyed, with the GIL, on its owner thread, which pumps messages and receives the
// events. Only IsCancelled runs on the upload thread.
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
  /// Copies service host (no scheme, at most 228 bytes), login token, product version, version type and installation
  /// uuid. Null counts as empty; an empty or unusable host makes each upload fail. May throw std::bad_alloc.
  PyPresetUploader(WCHAR const *szKHServerUrl, WCHAR const *szKHLoginTokenID, WCHAR const *szProdVersion,
                   WCHAR const *szVersionType, WCHAR const *szUUID);
  /// Cancels a running upload and waits for its thread, which sees that only between chunks. After 5 seconds, closes
  /// the upload's session, so that its network call fails. No event follows.
  ~PyPresetUploader() override;
  /// Destroys the object, or deliberately leaks it while a thread that cannot be waited for still uses it: in a forked
  /// child, or after the exit hook has run. SWIG's wrapper destroys with a
  /// generated `delete arg1`, so only a destroying operator delete can decide this before the destructor runs.
  static void operator delete(PyPresetUploader *pUploader, std::destroying_delete_t);

  /// Sets the callable for the events (takes a new reference); None removes it. Returns: 1.
  BOOL SetCallback(PyObject *callback);

  /// Starts the upload of thirteen files and seven texts in the background. Copies all arguments. Does not throw.
  /// Returns: the upload's thread id; 0, and no event follows, if a path is null or does not exist, while an upload
  /// runs or its completion is still queued, if there is no proxy window or no thread, or if memory runs out. An upload
  /// whose completion was lost is over and gets no event.
  UINT StartUpload(WCHAR const *szEffectFilePath, WCHAR const *szEffectCoverFilePathAfter,
                   WCHAR const *szEffectCoverFilePathBefore, WCHAR const *szEffectThumbnailAfter,
                   WCHAR const *szEffectThumbnailBefore, WCHAR const *szEffectCurveRGBImg,
                   WCHAR const *szEffectCurveRImg, WCHAR const *szEffectCurveGImg, WCHAR const *szEffectCurveBImg,
                   WCHAR const *szEffectLvRGBImg, WCHAR const *szEffectLvRImg, WCHAR const *szEffectLvGImg,
                   WCHAR const *szEffectLvBImg, WCHAR const *szTemplateKey, WCHAR const *szTitle,
                   WCHAR const *szCategory, WCHAR const *szTags, WCHAR const *szDescription, WCHAR const *szCollections,
                   WCHAR const *szPIPtype, int nKHID);
  /// Asks a running upload to stop; it ends with its usual completion event. Has no effect on a later upload.
  void CancelUpload() { *m_bCancel = 1; }
  /// Returns: a new reference to a str: the published address of the last upload, empty until its completion.
  PyObject *GetUploadedFileUrl();

  std::map<unsigned int, int> m_mapTID2KHID; ///< Thread id of a running upload -> its nKHID.

private:
  // The proxy calls these on the owner thread, but IsCancelled on the upload thread.
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
  void RecordUpload(UINT uThreadId, int nKHID);
  std::string EndThread(UINT &uThreadId, int &nKHID);
  void ReadUploadReply(std::string strReply, WCHAR *wszError, std::size_t cchError);
  HANDLE UploadThread() const { return m_pUploadThread ? m_pUploadThread->m_hThread.get() : nullptr; }
  bool UploadIsOver();
  bool EnsureThreadWillEnd();

  std::string m_strKHServerUrl;
  std::string m_strLoginTokenID;
  std::string m_strUUID;
  std::string m_strProdVersion;
  std::string m_strVersionType;
  std::wstring m_strUploadedFileUrl;
  UploadJob m_job;       // belongs to the upload thread while one runs
  UploadResult m_result; // likewise
  std::unique_ptr<UploadThread2> m_pUploadThread;
  std::unique_ptr<CUploadProgressProxyWindow> m_pProgressProxy;
  // Set on the owner thread and by the exit hook, read on the upload thread.
  CancelFlag const m_bCancel = std::make_shared<std::atomic<BYTE>>(BYTE(0));
};
