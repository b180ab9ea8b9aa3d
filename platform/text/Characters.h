// Which characters control a line rather than stand in it, and taking blanks off the ends of a text. Any thread.
#pragma once

#include <string_view>

/// True for the control characters of ASCII, which no file name, address or header line may hold.
constexpr bool IsControlCharacter(char32_t character) { return character < 0x20 || character == 0x7F; }

/// The text without the units at either end that `isBlank` accepts: a part of the same text.
template <class Unit, class IsBlank>
constexpr std::basic_string_view<Unit> Trim(std::basic_string_view<Unit> text, IsBlank const &isBlank) {
  while (!text.empty() && isBlank(text.front()))
    text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back()))
    text.remove_suffix(1);
  return text;
}
