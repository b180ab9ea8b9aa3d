// What the fuzz targets share: how an invariant that does not hold ends the run, and how the fuzzer's bytes become
// arguments. A target is one function, which libFuzzer calls with one input after another on one thread.
#pragma once

#include "platform/base/LastError.h"
#include "platform/base/Types.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size);

/// Ends the run, as a finding, if the invariant does not hold.
inline void Require(bool isMet, char const *invariant, char const *file = __builtin_FILE(),
                    int line = __builtin_LINE()) {
  if (isMet)
    return;
  std::fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, invariant);
  std::abort();
}

/// Takes arguments off the front of an input; an input that is used up gives zeros.
class Input {
public:
  Input(std::uint8_t const *data, std::size_t size) : m_rest(reinterpret_cast<char const *>(data), size) {}

  unsigned Byte() {
    unsigned const byte = m_rest.empty() ? 0 : static_cast<unsigned char>(m_rest.front());
    m_rest.remove_prefix(m_rest.empty() ? 0 : 1);
    return byte;
  }
  std::string_view Rest() const { return m_rest; }
  /// One character for each two bytes, so that most of them are no character or a surrogate, or for each byte.
  std::wstring WideRest(bool isTwoBytes) {
    std::wstring text;
    while (!m_rest.empty()) {
      unsigned const unit = Byte();
      text += static_cast<WCHAR>(isTwoBytes ? unit << 8 | Byte() : unit);
    }
    return text;
  }

private:
  std::string_view m_rest;
};

/// A copy that ends where its memory ends, so that the address sanitizer sees each read beyond it.
template <class Unit> class Exact {
public:
  /// `terminators`: how many zeros follow the text.
  explicit Exact(std::basic_string_view<Unit> text, std::size_t terminators = 0)
      : m_size(text.size()), m_units(new Unit[m_size + terminators]()) {
    std::copy(text.begin(), text.end(), m_units.get());
  }
  Unit *Data() const { return m_units.get(); }
  std::basic_string_view<Unit> View() const { return {m_units.get(), m_size}; }

private:
  std::size_t m_size;
  std::unique_ptr<Unit[]> m_units;
};
