// The code pages, UTF-8 and those of other locales, in both directions.
#include "platform/text/AnsiText.h"
#include "platform/text/CodePages.h"
#include "platform/text/Utf8.h"
#include "tests/cpp/platform/helpers.h"
#include "tests/fuzz/fuzz.h"

#include <optional>

/// The first stands for UTF-8. Some hold a letter back until the next byte, or give several for one byte.
constexpr char const *kCharsets[] = {"",      "EUC-JP",      "CP1255",         "BIG5-HKSCS",
                                     "TSCII", "ISO-8859-15", "SHIFT_JISX0213", "CP1258"};

/// Makes the character set that of the calling thread's locale, as far as the system has it.
static void UseCharset(std::size_t index) {
  static std::optional<std::shared_ptr<void>> made[std::size(kCharsets)];
  if (!made[index])
    made[index] = index == 0 ? nullptr : UseLocale(kCharsets[index]);
  uselocale(*made[index] ? static_cast<locale_t>(made[index]->get()) : LC_GLOBAL_LOCALE);
}

/// A unit for each byte, or for each two, so that many are no character or a surrogate.
static std::wstring Wide(std::string_view bytes, bool isTwoBytes) {
  std::wstring text;
  while (!bytes.empty())
    text += static_cast<WCHAR>(isTwoBytes ? TakeByte(bytes) << 8 | TakeByte(bytes) : TakeByte(bytes));
  return text;
}

static int Convert(UINT codePage, std::string_view in, WCHAR *out, int room) {
  return MultiByteToWideChar(codePage, 0, in.data(), static_cast<int>(in.size()), out, room);
}
static int Convert(UINT codePage, std::wstring_view in, char *out, int room) {
  return WideCharToMultiByte(codePage, 0, in.data(), static_cast<int>(in.size()), out, room, nullptr, nullptr);
}

/// Converts to units of the other kind, by buffers that just fit, and that do not.
template <class Unit, class Text> static std::basic_string<Unit> Converted(UINT codePage, Text const &text) {
  Exact<typename Text::value_type> const in(text);
  int const length = Convert(codePage, in.view, static_cast<Unit *>(nullptr), 0);
  Require(length > 0 && static_cast<std::size_t>(length) <= 4 * text.size(), "the length is bounded");
  std::basic_string<Unit> const empty(static_cast<std::size_t>(length), Unit{1});
  Exact<Unit> const fitting(empty), tight(std::basic_string_view<Unit>(empty).substr(1));
  Require(Convert(codePage, in.view, fitting.units.get(), length) == length, "what is measured fits");
  bool const fails = length == 1 || Convert(codePage, in.view, tight.units.get(), length - 1) == 0;
  Require(fails && (length == 1 || GetLastError() == ERROR_INSUFFICIENT_BUFFER), "a smaller buffer is refused");
  return empty.substr(0, 0).append(fitting.view);
}

FUZZ_TARGET(bytes) {
  unsigned const choice = TakeByte(bytes);
  if (bytes.empty())
    return;
  std::wstring const wide = Wide(bytes, (choice & 0x80) != 0);
  bool isValid = false;
  std::wstring const decoded = WideFromUtf8(Exact<char>(bytes).view, &isValid);
  Require(decoded == Converted<WCHAR>(CP_UTF8, bytes), "both decoders agree");
  Require(isValid == (Utf8FromWide(decoded) == bytes), "valid UTF-8, and only that, survives the round trip");
  std::string const encoded = Utf8FromWide(Exact<WCHAR>(wide).view);
  Require(encoded == Converted<char>(CP_UTF8, wide), "both encoders agree");
  Require(Utf8FromWide(WideFromUtf8(encoded, &isValid)) == encoded && isValid, "what was encoded is valid UTF-8");
  UseCharset(choice % std::size(kCharsets));
  Require(WideFromAnsi(bytes) == Converted<WCHAR>(CP_ACP, bytes), "bytes are widened whole");
  Require(AnsiFromWide(wide) == Converted<char>(CP_ACP, wide), "wide text is narrowed whole");
  std::string const letters(bytes.size(), static_cast<char>('A' + bytes.size() % 26)); // in all these character sets
  Require(Converted<char>(CP_ACP, Converted<WCHAR>(CP_ACP, letters)) == letters, "ASCII survives the round trip");
}
