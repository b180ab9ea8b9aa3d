// Small text helpers of the HTTP code. Pure functions, any thread.
#pragma once

#include <algorithm>
#include <string_view>

#include <strings.h>

inline bool HasControlCharacter(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; });
}

/// Compares ASCII text without case.
inline bool IsSameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

/// What precedes the colon of a header line.
inline std::string_view HeaderName(std::string_view line) { return line.substr(0, line.find(':')); }

/// The text without blanks and line ends around it.
inline std::string_view Trimmed(std::string_view text) {
  constexpr char const *kBlanks = " \t\r\n";
  std::size_t const first = text.find_first_not_of(kBlanks);
  if (first == text.npos)
    return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}
