// Measures a trace call while tracing is off: the time of a loop of calls minus that of the same loop without them.
// Single-threaded. Prints nanoseconds per call.
#include "trace/Trace.h"

#include <chrono>
#include <cstdio>

namespace {

constexpr int CALLS = 20'000'000;

// Returns the nanoseconds that one iteration takes.
template <typename Call> double Measure(Call call) {
  auto const start = std::chrono::steady_clock::now();
  for (int i = 0; i < CALLS; ++i) {
    call(i);
    asm volatile("" ::: "memory"); // keeps the empty loop
  }
  return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count() / CALLS;
}

} // namespace

int main() {
  TraceInit("trace_bench");
  double const dEmpty = Measure([](int) {});
  double const dTrace =
      Measure([](int i) { TraceMsgW(L"(%d)BytesSent / (%d)BytesTotal / (%d)%%, %d sec.", i, 9, 8, 7); });
  std::printf("%.2f\n", dTrace - dEmpty);
}
