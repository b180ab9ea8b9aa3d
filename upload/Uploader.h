// One whole upload: connects, streams the body of a job, reads status and reply.
// Thread: the one that calls Post, in practice the upload thread. Reports through BackgroundUploadProgress alone.
#pragma once

#include "platform/http/WinInet.h"
#include "platform/system/Locks.h"
#include "upload/UploadJob.h"
#include "upload/UploadProgress.h"

/// The result of an upload, written by the transfer.
struct UploadResult {
  HRESULT m_hr = 0;       ///< 0: sent completely and answered, whatever the HTTP status.
  int m_nHttpStatus = -1; ///< Written only when a status was read.
};

/// The transfer stopped because IsCancelled returned true.
constexpr HRESULT UPLOAD_E_CANCELLED = static_cast<HRESULT>(0x80040301U);

/// The session of an upload, which another thread may close to end the call in which the upload is blocked. Thread:
/// any, for Set and Close.
class SessionHandle {
public:
  SessionHandle() { InitializeCriticalSection(&m_section); }
  SessionHandle(SessionHandle const &) = delete;
  SessionHandle &operator=(SessionHandle const &) = delete;
  ~SessionHandle() { DeleteCriticalSection(&m_section); }
  void Set(HINTERNET hInternet);
  /// Closes the handle, if there is one. Returns only when another thread's call has, too: closing may report to the
  /// uploader, which must not end before that.
  void Close();

private:
  HINTERNET m_hInternet = nullptr; // guarded by m_section
  CRITICAL_SECTION m_section;
};

class Uploader {
public:
  /// The four objects are borrowed and must outlive the uploader.
  Uploader(BackgroundUploadProgress *pProgress, UploadJob *pJob, UploadResult *pResult, SessionHandle &session)
      : m_pProgress(pProgress), m_pJob(pJob), m_pResult(pResult), m_session(session) {}
  Uploader(Uploader const &) = delete;
  Uploader &operator=(Uploader const &) = delete;
  virtual ~Uploader() = default;

  /// Runs the upload; call it once. Does not throw. Has no time limit beyond those of the HTTP layer.
  /// Returns: 0, UPLOAD_E_CANCELLED, E_OUTOFMEMORY, or 0x8007xxxx for the platform call that failed; also stored in the
  /// result.
  virtual HRESULT Post();

  std::string m_strReply; ///< The reply body unconverted; each block is cut at its first zero byte.

private:
  HRESULT Transfer(HINTERNET hInternet);
  HRESULT SendBody(HINTERNET hRequest, std::string const &boundary, DWORD dwFilesTotal);
  HRESULT SendFile(HINTERNET hRequest, std::string const &boundary, UploadFile const &file, DWORD &dwAllSent,
                   DWORD dwFilesTotal);
  HRESULT SendChunks(HINTERNET hRequest, UploadFile const &file, HANDLE hFile, DWORD &dwAllSent, DWORD dwFilesTotal);
  void Report(UploadFile const &file, struct ProgressReport const &report);
  void ReadReply(HINTERNET hRequest);
  static void CALLBACK StatusCallback(HINTERNET hInternet, DWORD_PTR dwContext, DWORD dwStatus, void *pInformation,
                                      DWORD dwLength);

  BackgroundUploadProgress *m_pProgress;
  UploadJob *m_pJob;
  UploadResult *m_pResult;
  SessionHandle &m_session; // holds the session while Post runs
};
