#include "upload/UploadThread2.h"

unsigned UploadThread2::Run() {
  Uploader uploader(m_pProgress, m_pJob, m_pResult, m_session);
  HRESULT const hr = uploader.Post();
  m_pResult->m_hr = hr;
  m_strReply = std::move(uploader.m_strReply);
  m_pProgress->OnBackgroundUploadComplete(hr);
  return static_cast<unsigned>(hr);
}
