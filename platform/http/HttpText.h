// Small text helpers of the HTTP code. Pure functions, any thread.
#pragma once

#include "platform/text/Characters.h"

#include <algorithm>
#include <string_view>

#include <strings.h>

inline bool HasControlCharacter(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](unsigned char c) { return IsControlCharacter(c); });
}

/// Compares ASCII text without case.
inline bool IsSameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

/// What precedes the colon of a header line.
inline std::string_view HeaderName(std::string_view line) { return line.substr(0, line.find(':')); }

/// The text without blanks and line ends around it.
inline std::string_view Trimmed(std::string_view text) {
  return Trim(text, [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; });
}
