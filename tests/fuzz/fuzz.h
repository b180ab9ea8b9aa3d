// What the fuzz targets share. A target is one function, whose body follows FUZZ_TARGET(input) and which libFuzzer
// calls with one input after another.
#pragma once

#include "platform/base/LastError.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

/// Ends the run, as a finding, if the invariant does not hold.
inline void Require(bool isMet, char const *invariant, int line = __builtin_LINE()) {
  if (isMet)
    return;
  std::fprintf(stderr, "line %d: does not hold: %s\n", line, invariant);
  std::abort();
}

/// Takes the first byte off an input; zero if that is used up.
inline unsigned TakeByte(std::string_view &input) {
  unsigned char byte = 0;
  input.remove_prefix(input.copy(reinterpret_cast<char *>(&byte), 1));
  return byte;
}

#define FUZZ_TARGET(input)                                                                                             \
  static void Check(std::string_view input);                                                                           \
  extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {                                  \
    Check({reinterpret_cast<char const *>(data), size});                                                               \
    return 0;                                                                                                          \
  }                                                                                                                    \
  void Check(std::string_view input)

/// A copy whose memory ends with it: the address sanitizer sees each access beyond.
template <class Unit> struct Exact {
  explicit Exact(std::basic_string_view<Unit> text) : units(new Unit[text.size()]), view(units.get(), text.size()) {
    std::copy(text.begin(), text.end(), units.get());
  }
  std::unique_ptr<Unit[]> units;
  std::basic_string_view<Unit> view;
};
