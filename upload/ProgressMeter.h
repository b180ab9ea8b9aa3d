// The arithmetic of the progress reports of one file: byte counts, rate and time remaining. The caller supplies the
// clock. All divisions are 32-bit unsigned and drop the remainder; dividing by a rate of 0 divides by 1 instead.
// Thread: the upload thread; no locks.
#pragma once

#include "platform/base/Types.h"

/// The seven numbers of a report, in the order of OnFileProgress. Bytes, modulo 2^32, unless said otherwise.
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
  /// `dwMilliseconds` is the clock when the file starts. `dwAllSent` is borrowed: the running count of all files of the
  /// upload, which this meter adds to.
  ProgressMeter(DWORD dwRate, DWORD dwMilliseconds, DWORD dwFileTotal, DWORD dwAllTotal, DWORD &dwAllSent);

  /// The report before the file's first byte.
  ProgressReport First();
  /// Counts bytes that were written.
  void AddSent(DWORD dwBytes);
  /// Returns: true, with a report, if a new tick has begun since the latest report; else false, `report` unchanged.
  bool Periodic(DWORD dwMilliseconds, ProgressReport &report);
  /// The report after the file's last byte: its whole size as sent, and the times of the latest report again.
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
