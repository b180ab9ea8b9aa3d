// The thread that runs one upload in the background and reports its end to the receiver.
#pragma once

#include "upload/Thread.h"
#include "upload/Uploader.h"

class UploadThread2 : public Thread {
public:
  /// The three objects are borrowed and must outlive the thread.
  UploadThread2(UploadJob *pJob, UploadResult *pResult, BackgroundUploadProgress *pProgress)
      : m_pJob(pJob), m_pResult(pResult), m_pProgress(pProgress) {}
  /// Posts the job, stores its result and the reply, and always calls OnBackgroundUploadComplete last.
  /// Returns: the HRESULT as the exit code.
  unsigned Run() override;
  /// Ends the network call in which the upload is blocked, if it has opened its session; the upload then fails. Thread:
  /// the owner, while the thread runs.
  void Abort() { m_session.Close(); }

  UploadJob *m_pJob;
  UploadResult *m_pResult;
  BackgroundUploadProgress *m_pProgress;
  std::string m_strReply; ///< The reply body; read it only after Wait.

private:
  SessionHandle m_session;
};
