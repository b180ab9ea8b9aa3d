// The thread that runs one upload in the background and tells its receiver when it is over.
#pragma once

#include "upload/Thread.h"
#include "upload/Uploader.h"

class UploadThread2 : public Thread {
public:
  /// The three objects are borrowed and outlive the thread.
  UploadThread2(UploadJob *pJob, UploadResult *pResult, BackgroundUploadProgress *pProgress)
      : m_pJob(pJob), m_pResult(pResult), m_pProgress(pProgress) {}
  /// Posts the job, keeps outcome and reply, and calls OnBackgroundUploadComplete, always and last. The exit code is
  /// the HRESULT.
  unsigned Run() override;

  UploadJob *m_pJob;
  UploadResult *m_pResult;
  BackgroundUploadProgress *m_pProgress;
  std::string m_strReply; ///< The reply; read it after Wait.
};
