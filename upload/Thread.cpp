// See Thread.h.
#include "upload/Thread.h"
#include "platform/base/Handles.h"

Thread::~Thread() {
  if (m_hThread)
    CloseHandle(m_hThread);
}

unsigned __stdcall Thread::Entry(void *pArg) { return static_cast<Thread *>(pArg)->Run(); }

bool Thread::Start() {
  m_hThread = reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, Entry, this, CREATE_SUSPENDED, &m_uThreadId));
  if (!m_hThread)
    return false;
  ResumeThread(m_hThread);
  return true;
}

bool Thread::EndsWithin(DWORD dwMilliseconds) const {
  return !m_hThread || WaitForSingleObject(m_hThread, dwMilliseconds) != WAIT_TIMEOUT;
}

DWORD Thread::Wait() {
  DWORD dwExitCode = 0xFFFFFFFF;
  if (!m_hThread || WaitForSingleObject(m_hThread, INFINITE) == WAIT_FAILED)
    return dwExitCode;
  GetExitCodeThread(m_hThread, &dwExitCode);
  CloseHandle(m_hThread);
  m_hThread = nullptr;
  return dwExitCode;
}
