// Which text may stand in the head of a request. The native platform's functions send what they are given, so what puts
// a request's text together checks it first. A pure function; any thread.
#pragma once

#include <algorithm>
#include <string_view>

/// True if the bytes, as they go out, hold no control character of ASCII, such as a line end, which would begin another
/// header line or another request.
inline bool IsOneLine(std::string_view bytes) {
  return std::none_of(bytes.begin(), bytes.end(), [](char c) {
    auto const byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7F;
  });
}
