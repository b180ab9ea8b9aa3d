#include "upload/Thread.h"

unsigned __stdcall Thread::Entry(void *pArg) { return static_cast<Thread *>(pArg)->Run(); }

bool Thread::Start() {
  m_hThread.reset(reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, Entry, this, CREATE_SUSPENDED, &m_uThreadId)));
  if (!m_hThread)
    return false;
  ResumeThread(m_hThread.get());
  return true;
}

bool Thread::EndsWithin(DWORD dwMilliseconds) const {
  return !m_hThread || WaitForSingleObject(m_hThread.get(), dwMilliseconds) != WAIT_TIMEOUT;
}

DWORD Thread::Wait() {
  DWORD dwExitCode = 0xFFFFFFFF;
  if (!m_hThread || WaitForSingleObject(m_hThread.get(), INFINITE) == WAIT_FAILED)
    return dwExitCode;
  GetExitCodeThread(m_hThread.get(), &dwExitCode);
  m_hThread.reset();
  return dwExitCode;
}
