// Conversion between UTF-8 and wide text for the platform's own use. Wide text is UTF-32 here; units that form a
// surrogate pair count as the character they stand for. All functions may throw std::bad_alloc, nothing else.
#pragma once

#include "platform/text/AnsiText.h"

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

constexpr char32_t kReplacementCharacter = 0xFFFD;

constexpr bool IsSurrogate(char32_t unit) { return unit >= 0xD800 && unit <= 0xDFFF; }

/// How many units at the start are ASCII: most text is, and goes over in one step. Looks at blocks, which vectorizes.
template <class Unit> std::size_t AsciiPrefix(std::basic_string_view<Unit> text) {
  constexpr std::size_t kBlock = 64;
  std::size_t u = 0;
  for (; text.size() - u >= kBlock; u += kBlock) {
    std::make_unsigned_t<Unit> all = 0;
    for (std::size_t i = 0; i < kBlock; ++i)
      all |= static_cast<std::make_unsigned_t<Unit>>(text[u + i]);
    if (all >= 0x80)
      break;
  }
  while (u < text.size() && static_cast<std::make_unsigned_t<Unit>>(text[u]) < 0x80)
    ++u;
  return u;
}

/// Copies ASCII units into units of another size.
template <class Unit, class Other> void CopyAscii(std::basic_string_view<Unit> text, Other *pPut) {
  constexpr std::size_t kBlock = 64;
  Other block[kBlock]; // of its own, so that the compiler knows that nothing overlaps
  for (; text.size() >= kBlock; text.remove_prefix(kBlock), pPut += kBlock) {
    for (std::size_t i = 0; i < kBlock; ++i)
      block[i] = static_cast<Other>(text[i]);
    std::memcpy(pPut, block, sizeof block);
  }
  for (Unit const unit : text)
    *pPut++ = static_cast<Other>(unit);
}

/// The character at `p`, which is moved behind it; a lone surrogate comes out as it is. `p` must not be `pEnd`.
inline char32_t NextCharacter(WCHAR const *&p, WCHAR const *pEnd) {
  auto const unit = static_cast<char32_t>(*p++);
  if (unit < 0xD800 || unit > 0xDBFF || p == pEnd)
    return unit;
  auto const low = static_cast<char32_t>(*p);
  if (low < 0xDC00 || low > 0xDFFF)
    return unit;
  ++p;
  return 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
}

/// Hands the character's UTF-8 bytes to `put` one by one; what is no character goes out as U+FFFD.
template <class Put> void EncodeUtf8(char32_t character, Put const &put) {
  if (IsSurrogate(character) || character > 0x10FFFF)
    character = kReplacementCharacter;
  auto const tail = [&](int nShift) { put(static_cast<char>(0x80 | ((character >> nShift) & 0x3F))); };
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
  int nTail;            // bytes that follow; -1 if the lead byte can't stand
  unsigned char second; // the range of the first of them (Unicode 15, table 3-7)
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

/// The character at `p`, which is moved behind it, or behind the longest part that could have begun one; `bValid` then
/// becomes false and the character is U+FFFD.
inline char32_t DecodeUtf8(unsigned char const *&p, unsigned char const *pEnd, bool &bValid) {
  unsigned char const lead = *p++;
  if (lead < 0x80)
    return lead;
  Utf8Sequence const sequence = SequenceOf(lead);
  if (sequence.nTail < 0) {
    bValid = false;
    return kReplacementCharacter;
  }
  char32_t character = lead & (0x3F >> sequence.nTail);
  unsigned char low = sequence.second;
  unsigned char high = sequence.secondLast;
  for (int n = 0; n < sequence.nTail; ++n) {
    if (p == pEnd || *p < low || *p > high) {
      bValid = false;
      return kReplacementCharacter;
    }
    character = (character << 6) | (*p++ & 0x3F);
    low = 0x80;
    high = 0xBF;
  }
  return character;
}

template <class Put> bool DecodeAll(std::string_view text, Put const &put) {
  bool bValid = true;
  auto const *p = reinterpret_cast<unsigned char const *>(text.data());
  auto const *const pEnd = p + text.size();
  while (p != pEnd)
    put(*p < 0x80 ? static_cast<WCHAR>(*p++) : static_cast<WCHAR>(DecodeUtf8(p, pEnd, bValid)));
  return bValid;
}

/// What is no character becomes U+FFFD.
std::string Utf8FromWide(std::wstring_view text);

/// What does not decode becomes U+FFFD; `*pbValid`, if asked for, tells whether there was any.
std::wstring WideFromUtf8(std::string_view text, bool *pbValid = nullptr);
