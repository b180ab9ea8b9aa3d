// Conversion between UTF-8 and wide text for the platform's own use. Wide text is UTF-32 here; units that form a
// surrogate pair count as the character they stand for. Any thread. All functions may throw std::bad_alloc, nothing
// else.
#pragma once

#include "platform/base/Types.h"

#include <cstddef>
#include <string>
#include <string_view>

constexpr char32_t kReplacementCharacter = 0xFFFD;

constexpr bool IsSurrogate(char32_t unit) { return unit >= 0xD800 && unit <= 0xDFFF; }

/// The character at `next`, which then points after it; a lone surrogate is returned as it is. `next` must not be
/// `end`.
inline char32_t NextCharacter(WCHAR const *&next, WCHAR const *end) {
  auto const unit = static_cast<char32_t>(*next++);
  if (unit < 0xD800 || unit > 0xDBFF || next == end)
    return unit;
  auto const low = static_cast<char32_t>(*next);
  if (low < 0xDC00 || low > 0xDFFF)
    return unit;
  ++next;
  return 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
}

/// Passes the character's UTF-8 bytes to `put` one by one; U+FFFD stands in for what is not a character.
template <class Put> void EncodeUtf8(char32_t character, Put const &put) {
  if (IsSurrogate(character) || character > 0x10FFFF)
    character = kReplacementCharacter;
  auto const tail = [&](int shift) { put(static_cast<char>(0x80 | ((character >> shift) & 0x3F))); };
  if (character < 0x80) {
    put(static_cast<char>(character));
  } else if (character < 0x800) {
    put(static_cast<char>(0xC0 | (character >> 6)));
    tail(0);
  } else if (character < 0x10000) {
    put(static_cast<char>(0xE0 | (character >> 12)));
    tail(6);
    tail(0);
  } else {
    put(static_cast<char>(0xF0 | (character >> 18)));
    tail(12);
    tail(6);
    tail(0);
  }
}

struct Utf8Sequence {
  int tailLength;       // bytes that follow; -1 for a byte that begins no sequence
  unsigned char second; // the range of the first of them: second to secondLast (Unicode 15, table 3-7)
  unsigned char secondLast;
};

constexpr Utf8Sequence SequenceOf(unsigned char lead) {
  if (lead >= 0xC2 && lead <= 0xDF)
    return {1, 0x80, 0xBF};
  if (lead >= 0xE0 && lead <= 0xEF)
    return {2, static_cast<unsigned char>(lead == 0xE0 ? 0xA0 : 0x80),
            static_cast<unsigned char>(lead == 0xED ? 0x9F : 0xBF)};
  if (lead >= 0xF0 && lead <= 0xF4)
    return {3, static_cast<unsigned char>(lead == 0xF0 ? 0x90 : 0x80),
            static_cast<unsigned char>(lead == 0xF4 ? 0x8F : 0xBF)};
  return {-1, 0, 0};
}

/// The character at `next`, which then points after it. Where there is none, `isValid` becomes false, the result is
/// U+FFFD and `next` points after the longest part that could have begun one.
inline char32_t DecodeUtf8(unsigned char const *&next, unsigned char const *end, bool &isValid) {
  unsigned char const lead = *next++;
  if (lead < 0x80)
    return lead;
  Utf8Sequence const sequence = SequenceOf(lead);
  if (sequence.tailLength < 0) {
    isValid = false;
    return kReplacementCharacter;
  }
  char32_t character = lead & (0x3F >> sequence.tailLength);
  unsigned char low = sequence.second;
  unsigned char high = sequence.secondLast;
  for (int index = 0; index < sequence.tailLength; ++index) {
    if (next == end || *next < low || *next > high) {
      isValid = false;
      return kReplacementCharacter;
    }
    character = (character << 6) | (*next++ & 0x3F);
    low = 0x80;
    high = 0xBF;
  }
  return character;
}

/// Passes the text's characters to `put` one by one. Returns: false if any byte did not decode.
template <class Put> bool DecodeAll(std::string_view text, Put const &put) {
  bool isValid = true;
  auto const *next = reinterpret_cast<unsigned char const *>(text.data());
  auto const *const end = next + text.size();
  while (next != end)
    put(*next < 0x80 ? static_cast<WCHAR>(*next++) : static_cast<WCHAR>(DecodeUtf8(next, end, isValid)));
  return isValid;
}

/// What is not a character becomes U+FFFD.
std::string Utf8FromWide(std::wstring_view text);

/// What does not decode becomes U+FFFD; `*isValid`, unless null, becomes false if there was any and true if not.
std::wstring WideFromUtf8(std::string_view text, bool *isValid = nullptr);
