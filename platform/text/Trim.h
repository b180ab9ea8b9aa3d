// Taking blanks off the ends of a text. Any thread; knows no character set: the caller says what a blank is.
#pragma once

#include <string_view>

/// The text without the units at either end that `isBlank` accepts: a part of the same text.
template <class Unit, class IsBlank>
constexpr std::basic_string_view<Unit> Trim(std::basic_string_view<Unit> text, IsBlank const &isBlank) {
  while (!text.empty() && isBlank(text.front()))
    text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back()))
    text.remove_suffix(1);
  return text;
}
