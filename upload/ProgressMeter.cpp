#include "upload/ProgressMeter.h"

namespace {

DWORD Tick(DWORD dwMilliseconds) { return dwMilliseconds / 500; }

DWORD TimeFor(DWORD dwBytes, DWORD dwRate) { return dwBytes / (dwRate ? dwRate : 1); }

} // namespace

ProgressMeter::ProgressMeter(DWORD dwRate, DWORD dwMilliseconds, DWORD dwFileTotal, DWORD dwAllTotal, DWORD &dwAllSent)
    : m_dwRate(dwRate), m_dwStartTick(Tick(dwMilliseconds)), m_dwLastTick(m_dwStartTick), m_dwFileTotal(dwFileTotal),
      m_dwAllTotal(dwAllTotal), m_dwAllSent(dwAllSent) {}

ProgressReport ProgressMeter::Report(DWORD dwFileSent) const {
  return {dwFileSent, m_dwFileTotal, m_dwFileTimeRemaining, m_dwAllSent, m_dwAllTotal, m_dwAllTimeRemaining, m_dwRate};
}

ProgressReport ProgressMeter::First() {
  m_dwFileTimeRemaining = TimeFor(m_dwFileTotal, m_dwRate);
  // From the whole total: only the periodic reports subtract what earlier files have sent.
  m_dwAllTimeRemaining = TimeFor(m_dwAllTotal, m_dwRate);
  return Report(0);
}

void ProgressMeter::AddSent(DWORD dwBytes) {
  m_dwFileSent += dwBytes;
  m_dwAllSent += dwBytes;
}

bool ProgressMeter::Periodic(DWORD dwMilliseconds, ProgressReport &report) {
  DWORD const dwTick = Tick(dwMilliseconds);
  if (dwTick == m_dwLastTick)
    return false;
  // Only a clock that wrapped returns to the start tick. Zero ticks have no average, so the rate stays.
  if (dwTick != m_dwStartTick)
    m_dwRate = m_dwFileSent / (dwTick - m_dwStartTick);
  m_dwFileTimeRemaining = TimeFor(m_dwFileTotal - m_dwFileSent, m_dwRate);
  m_dwAllTimeRemaining = TimeFor(m_dwAllTotal - m_dwAllSent, m_dwRate);
  report = Report(m_dwFileSent);
  m_dwLastTick = dwTick;
  return true;
}

ProgressReport ProgressMeter::Last() const { return Report(m_dwFileTotal); }
