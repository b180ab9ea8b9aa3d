// The arithmetic of the progress reports of one file: counts, rate and time left. Pure; the caller brings the clock.
// All divisions are 32-bit unsigned with the remainder dropped; a rate of 0 counts as 1 in them.
#pragma once

#include "platform/base/Types.h"

/// The seven numbers of a report, in the order of OnFileProgress.
struct ProgressReport {
  DWORD dwFileSent;
  DWORD dwFileTotal;
  DWORD dwFileTimeRemaining; ///< Ticks of 500 ms.
  DWORD dwAllSent;
  DWORD dwAllTotal;
  DWORD dwAllTimeRemaining; ///< Ticks of 500 ms.
  DWORD dwRate;             ///< Bytes per tick.

  bool operator==(ProgressReport const &) const = default;
};

class ProgressMeter {
public:
  /// `dwMilliseconds` is the clock at the file's start; `dwAllSent` is shared by the files of one upload and outlives
  /// this.
  ProgressMeter(DWORD dwRate, DWORD dwMilliseconds, DWORD dwFileTotal, DWORD dwAllTotal, DWORD &dwAllSent);

  ProgressReport First();
  void AddSent(DWORD dwBytes);
  /// True, with a report, if a new tick has begun since the last one that was reported.
  bool Periodic(DWORD dwMilliseconds, ProgressReport &report);
  /// The whole file as sent, with the times as they stood.
  ProgressReport Last() const;
  DWORD Rate() const { return m_dwRate; }

private:
  ProgressReport Report(DWORD dwFileSent) const;

  DWORD m_dwRate;
  DWORD m_dwStartTick;
  DWORD m_dwLastTick;
  DWORD m_dwFileSent = 0;
  DWORD m_dwFileTotal;
  DWORD m_dwAllTotal;
  DWORD m_dwFileTimeRemaining = 0;
  DWORD m_dwAllTimeRemaining = 0;
  DWORD &m_dwAllSent;
};
