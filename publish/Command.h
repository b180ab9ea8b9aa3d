// A progress call on its way from the upload thread to the owner thread. Owns copies of its arguments.
// Thread: created and posted on the upload thread, run and freed on the owner thread.
#pragma once

#include "upload/ProgressMeter.h"
#include "upload/UploadProgress.h"

#include <string>

class Command {
public:
  virtual ~Command() = default;
  /// Makes the call.
  virtual void Execute() = 0;
};

/// A command for a receiver, which it borrows. The three generic commands below each serve all slots of one signature;
/// they hold the slot as a pointer to a virtual member, which calls the receiver's override.
class UploadProgressCommand : public Command {
public:
  explicit UploadProgressCommand(BackgroundUploadProgress *pTarget) : m_pTarget(pTarget) {}

protected:
  BackgroundUploadProgress *m_pTarget;
};

class VoidCommand : public UploadProgressCommand {
public:
  using Slot = void (BackgroundUploadProgress::*)();
  VoidCommand(BackgroundUploadProgress *pTarget, Slot pfnSlot) : UploadProgressCommand(pTarget), m_pfnSlot(pfnSlot) {}
  void Execute() override { (m_pTarget->*m_pfnSlot)(); }

private:
  Slot m_pfnSlot;
};

class StringCommand : public UploadProgressCommand {
public:
  using Slot = void (BackgroundUploadProgress::*)(WCHAR const *);
  StringCommand(BackgroundUploadProgress *pTarget, Slot pfnSlot, WCHAR const *wszArg)
      : UploadProgressCommand(pTarget), m_pfnSlot(pfnSlot), m_strArg(wszArg ? wszArg : L"") {}
  void Execute() override { (m_pTarget->*m_pfnSlot)(m_strArg.c_str()); }

private:
  Slot m_pfnSlot;
  std::wstring m_strArg;
};

class DwordCommand : public UploadProgressCommand {
public:
  using Slot = void (BackgroundUploadProgress::*)(DWORD);
  DwordCommand(BackgroundUploadProgress *pTarget, Slot pfnSlot, DWORD dwArg)
      : UploadProgressCommand(pTarget), m_pfnSlot(pfnSlot), m_dwArg(dwArg) {}
  void Execute() override { (m_pTarget->*m_pfnSlot)(m_dwArg); }

private:
  Slot m_pfnSlot;
  DWORD m_dwArg;
};

class OnFileProgressCommand : public UploadProgressCommand {
public:
  OnFileProgressCommand(BackgroundUploadProgress *pTarget, WCHAR const *wszFileName, ProgressReport const &report)
      : UploadProgressCommand(pTarget), m_strFileName(wszFileName), m_report(report) {}
  void Execute() override {
    m_pTarget->OnFileProgress(m_strFileName.c_str(), m_report.dwFileSent, m_report.dwFileTotal,
                              m_report.dwFileTimeRemaining, m_report.dwAllSent, m_report.dwAllTotal,
                              m_report.dwAllTimeRemaining, m_report.dwRate);
  }

private:
  std::wstring m_strFileName;
  ProgressReport m_report;
};

class OnFileCompleteCommand : public UploadProgressCommand {
public:
  OnFileCompleteCommand(BackgroundUploadProgress *pTarget, WCHAR const *wszFileName, HRESULT hr)
      : UploadProgressCommand(pTarget), m_strFileName(wszFileName), m_dwResult(hr) {}
  void Execute() override { m_pTarget->OnFileComplete(m_strFileName.c_str(), m_dwResult); }

private:
  std::wstring m_strFileName;
  HRESULT m_dwResult;
};
