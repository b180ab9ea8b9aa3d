// Owners of the platform's handles, and the scope of a critical section. Thin and portable: written over the functions
// of the platform alone. Thread: any; an owner belongs to one thread at a time.
#pragma once

#include "platform/base/Handles.h"
#include "platform/http/WinInet.h"
#include "platform/system/Files.h"
#include "platform/system/Locks.h"

#include <memory>

struct KernelHandleCloser {
  void operator()(HANDLE h) const {
    if (h != INVALID_HANDLE_VALUE)
      CloseHandle(h);
  }
};
/// Owns the handle of a thread or of an open file. Both null and INVALID_HANDLE_VALUE stand for none.
using KernelHandle = std::unique_ptr<void, KernelHandleCloser>;

struct InternetHandleCloser {
  void operator()(HINTERNET h) const { InternetCloseHandle(h); }
};
/// Owns a handle of the HTTP interface, null for none.
using InternetHandle = std::unique_ptr<void, InternetHandleCloser>;

/// Holds a critical section, which outlives it.
class SectionLock {
public:
  explicit SectionLock(CRITICAL_SECTION &section) : m_section(section) { EnterCriticalSection(&m_section); }
  SectionLock(SectionLock const &) = delete;
  SectionLock &operator=(SectionLock const &) = delete;
  ~SectionLock() { LeaveCriticalSection(&m_section); }

private:
  CRITICAL_SECTION &m_section;
};
