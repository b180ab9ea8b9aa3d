// The one place where tests control the platform: time, sleeping, and the failure of a chosen call. Declared once and
// defined twice, in Seam.cpp for the product and with the tests; the linker chooses, over the same objects.
// Thread: any, for every function here.
#pragma once

#include "platform/base/Types.h"

#include <chrono>

/// The calls that a test can make fail, each at its start.
enum class FaultPoint {
  _beginthreadex,
  CoCreateInstance,
  CreateFileW,
  HttpAddRequestHeadersA,
  HttpEndRequestW,
  HttpOpenRequestA,
  HttpOpenRequestW,
  HttpQueryInfoW,
  HttpSendRequestExW,
  HttpSendRequestW,
  InternetConnectA,
  InternetConnectW,
  InternetOpenA,
  InternetOpenUrlA,
  InternetOpenW,
  InternetQueryDataAvailable,
  InternetReadFile,
  InternetWriteFile,
  LoadLibraryA,
  PathFileExistsW,
  PostMessageW,
  ReadFile,
  selectSingleNode,
  WaitForSingleObject,
};

/// True if the call is to fail without being made; the last error is then set.
bool FaultAt(FaultPoint call);
/// Milliseconds of the steady clock by which every time limit is measured.
std::uint64_t SteadyMilliseconds();
/// The same of the system's clock, whoever drives time.
inline std::uint64_t SystemMilliseconds() {
  using namespace std::chrono;
  return static_cast<std::uint64_t>(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}
/// True if a test drives the clock: a wait must then check it every few milliseconds.
bool ClockIsDriven();
/// Blocks for that many ms; 0 yields the processor.
void SleepMilliseconds(DWORD ms);
