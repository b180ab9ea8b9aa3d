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

/// Takes arguments off the front of an input; one that is used up gives zeros.
struct Input {
  unsigned Byte() {
    unsigned char byte = 0;
    rest.remove_prefix(rest.copy(reinterpret_cast<char *>(&byte), 1));
    return byte;
  }
  /// Wide text of the rest: a unit for each byte, or for each two, so that many are no character or a surrogate.
  std::wstring Wide(bool isTwoBytes) {
    std::wstring text;
    while (!rest.empty())
      text += static_cast<WCHAR>(isTwoBytes ? Byte() << 8 | Byte() : Byte());
    return text;
  }

  std::string_view rest;
};

#define FUZZ_TARGET(input)                                                                                             \
  static void Check(Input input);                                                                                      \
  extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {                                  \
    Check({{reinterpret_cast<char const *>(data), size}});                                                             \
    return 0;                                                                                                          \
  }                                                                                                                    \
  void Check(Input input)

/// A copy whose memory ends with it, after `zeros` more units: the address sanitizer sees each access beyond.
template <class Unit> struct Exact {
  explicit Exact(std::basic_string_view<Unit> text, std::size_t zeros = 0)
      : units(new Unit[text.size() + zeros]()), view(units.get(), text.size()) {
    std::copy(text.begin(), text.end(), units.get());
  }
  std::unique_ptr<Unit[]> units;
  std::basic_string_view<Unit> view;
};
