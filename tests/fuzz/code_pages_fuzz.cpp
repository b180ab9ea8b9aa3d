// The code pages, UTF-8 and those of other locales, in both directions.
#include "platform/text/AnsiText.h"
#include "platform/text/CodePages.h"
#include "platform/text/Utf8.h"
#include "tests/cpp/platform/text/thread_locale.h"
#include "tests/fuzz/fuzz.h"

#include <array>
#include <memory>

namespace {

/// The first stands for UTF-8. Some hold a letter back until the next byte, or give several for one byte.
constexpr char const *kCharsets[] = {"",      "EUC-JP",      "GB18030",        "BIG5-HKSCS",
                                     "TSCII", "ISO-8859-15", "SHIFT_JISX0213", "CP1258"};

/// Makes the character set that of the calling thread's locale, as far as the system has it.
void UseCharset(std::size_t index) {
  static auto &made = *new std::array<std::unique_ptr<ThreadLocale>, std::size(kCharsets)>;
  static std::array<locale_t, std::size(kCharsets)> locales{LC_GLOBAL_LOCALE};
  if (!locales[index]) {
    made[index] = std::make_unique<ThreadLocale>(kCharsets[index]);
    locales[index] = *made[index] ? uselocale(nullptr) : LC_GLOBAL_LOCALE;
  }
  uselocale(locales[index]);
}

/// What both directions have in common: buffers that just fit, and that do not.
template <class Unit, class Convert> std::basic_string<Unit> Converted(Convert const &convert, std::size_t mostUnits) {
  auto const length = static_cast<std::size_t>(convert(nullptr, 0));
  Require(length > 0 && length <= mostUnits, "the length is bounded");
  Exact<Unit> const fitting(std::basic_string<Unit>(length, Unit{1}));
  Require(convert(fitting.Data(), static_cast<int>(length)) == static_cast<int>(length), "what was measured fits");
  if (length > 1) {
    Exact<Unit> const tight(std::basic_string<Unit>(length - 1, Unit{1}));
    bool const fails = convert(tight.Data(), static_cast<int>(length - 1)) == 0;
    Require(fails && GetLastError() == ERROR_INSUFFICIENT_BUFFER, "a smaller buffer is refused");
    Require(tight.View() == fitting.View().substr(0, length - 1), "a smaller buffer holds the start");
  }
  return std::basic_string<Unit>(fitting.View());
}

std::wstring Widened(UINT codePage, std::string_view bytes) {
  Exact<char> const in(bytes);
  auto const convert = [&](WCHAR *out, int room) {
    return MultiByteToWideChar(codePage, 0, in.Data(), static_cast<int>(bytes.size()), out, room);
  };
  return Converted<WCHAR>(convert, 4 * bytes.size());
}

std::string Narrowed(UINT codePage, std::wstring_view wide) {
  Exact<WCHAR> const in(wide);
  auto const convert = [&](char *out, int room) {
    return WideCharToMultiByte(codePage, 0, in.Data(), static_cast<int>(wide.size()), out, room, nullptr, nullptr);
  };
  return Converted<char>(convert, 4 * wide.size() + 4); // a return to the initial shift state comes on top
}

void CheckUtf8(std::string_view bytes, std::wstring_view wide) {
  bool isValid = false;
  std::wstring const decoded = WideFromUtf8(Exact<char>(bytes).View(), &isValid);
  Require(decoded == Widened(CP_UTF8, bytes), "both decoders agree");
  Require(isValid == (Utf8FromWide(decoded) == bytes), "valid UTF-8, and only that, survives the round trip");
  std::string const encoded = Utf8FromWide(Exact<WCHAR>(wide).View());
  Require(encoded == Narrowed(CP_UTF8, wide), "both encoders agree");
  std::wstring const again = WideFromUtf8(encoded, &isValid);
  Require(isValid && Utf8FromWide(again) == encoded, "what was encoded is valid UTF-8");
}

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {
  Input input(data, size);
  unsigned const choice = input.Byte();
  std::string_view const bytes = input.Rest();
  if (bytes.empty())
    return 0;
  std::wstring wide = input.WideRest((choice & 0x80) != 0);
  CheckUtf8(bytes, wide);
  UseCharset(choice % std::size(kCharsets));
  Require(WideFromAnsi(bytes) == Widened(CP_ACP, bytes), "bytes are widened whole");
  Require(AnsiFromWide(wide) == Narrowed(CP_ACP, wide), "wide text is narrowed whole");
  std::string const ascii(bytes.size(), static_cast<char>(bytes[0] & 0x7F ? bytes[0] & 0x7F : 'a'));
  if (ascii[0] >= '0' && ascii[0] <= 'Z') // of which all these character sets agree
    Require(Narrowed(CP_ACP, Widened(CP_ACP, ascii)) == ascii, "ASCII survives the round trip");
  return 0;
}
