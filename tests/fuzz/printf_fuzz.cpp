// The wide printf family: its bounds, and the C library's narrow one as what it must agree with.
#include "platform/text/Text.h"
#include "tests/fuzz/fuzz.h"

#include <cstring>
#include <vector>

namespace {

/// One conversion, built from the input. The width is an argument, and so is the precision if there is one.
struct Conversion {
  std::string flags, stars, length, type;
  int width = 0;
  int precision = 0;

  explicit Conversion(Input &input) {
    unsigned const bits = input.Byte(), choice = input.Byte();
    static constexpr char const *kLengths[] = {"", "l", "ll", "h"};
    type = "sSdiuxXc"[choice & 7];
    length = kLengths[choice >> 3 & 3];
    stars = choice & 0x20 ? "*.*" : "*";
    for (unsigned bit = 0; bit < 5; ++bit)
      flags += bits >> bit & 1 ? std::string(1, "-+ 0#"[bit]) : "";
    width = static_cast<int>(input.Byte()) - 64;
    precision = static_cast<int>(input.Byte()) - 8;
  }
  bool HasPrecision() const { return stars.size() > 1; }
  bool IsText() const { return std::strchr("sSc", type[0]) != nullptr; }
  bool IsNarrow() const { return length == "h" || (type == "S" && length.empty()); }
};

/// Calls a function of the family with the arguments that the conversion takes.
template <class Print, class Argument> auto Call(Print print, Conversion const &conversion, Argument argument) {
  return conversion.HasPrecision() ? print(conversion.width, conversion.precision, argument)
                                   : print(conversion.width, argument);
}

/// Formats into `room` units. Returns: what was printed.
template <class... Arguments> std::wstring Print(std::size_t room, std::wstring const &format, Arguments... arguments) {
  Exact<WCHAR> const out(std::wstring(room, L'#'));
  int const length = _snwprintf_s(out.Data(), room, _TRUNCATE, Exact<WCHAR>(format, 1).Data(), arguments...);
  std::size_t const end = out.View().find(L'\0');
  Require(end != std::wstring_view::npos, "what is printed is terminated");
  Require(length == static_cast<int>(end) || (length == -1 && end + 1 == room), "the length, or cut at the end");
  return std::wstring(out.View().substr(0, end)) + (length == -1 ? L"|cut" : L"");
}

/// Prints `given` with the platform and `meant`, which is the same to the C library, with that.
template <class Given, class Meant>
void Compare(std::size_t room, Conversion const &conversion, Given given, Meant meant) {
  std::string text = '%' + conversion.flags + conversion.stars + conversion.length + conversion.type;
  std::wstring const format(text.begin(), text.end());
  std::wstring const printed =
      Call([&](auto... arguments) { return Print(room, format, arguments...); }, conversion, given);
  if (conversion.IsText()) // of the flags, only "-" has a meaning here
    text = (conversion.flags.starts_with('-') ? "%-" : "%") + conversion.stars + (conversion.type == "c" ? 'c' : 's');
  char out[1024];
  Call([&](auto... arguments) { return std::snprintf(out, sizeof out, text.c_str(), arguments...); }, conversion,
       meant);
  std::string const whole = out;
  std::string const expected = whole.size() < room ? whole : whole.substr(0, room - 1) + "|cut";
  Require(printed == std::wstring(expected.begin(), expected.end()), "the C library prints the same");
}

void CompareNumber(std::size_t room, Conversion const &conversion, long long number) {
  if (conversion.length == "ll")
    Compare(room, conversion, number, number);
  else if (conversion.length == "l")
    Compare(room, conversion, static_cast<long>(number), static_cast<long>(number));
  else
    Compare(room, conversion, static_cast<int>(number), static_cast<int>(number));
}

/// A text without a terminator, if the precision ends it.
void CompareText(std::size_t room, Conversion const &conversion, std::string text) {
  for (char &c : text)
    c = static_cast<char>(c & 0x7F ? c & 0x7F : 'z');
  bool const isBounded = !conversion.IsNarrow() && conversion.HasPrecision() && conversion.precision >= 0;
  text.resize(isBounded ? std::min<std::size_t>(text.size(), conversion.precision) : text.size());
  bool const needsEnd = !isBounded || static_cast<int>(text.size()) < conversion.precision;
  if (conversion.IsNarrow())
    Compare(room, conversion, Exact<char>(text, 1).Data(), text.c_str());
  else
    Compare(room, conversion, Exact<WCHAR>(std::wstring(text.begin(), text.end()), needsEnd).Data(), text.c_str());
}

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {
  Input input(data, size);
  std::size_t const room = input.Byte() + 1;
  Conversion const conversion(input);
  long long number = 0;
  for (int index = 0; index < 8; ++index)
    number = static_cast<long long>(static_cast<unsigned long long>(number) << 8 | input.Byte());
  std::string const text(input.Rest().substr(0, 512));
  if (conversion.type == "c")
    Compare(room, conversion, static_cast<int>(number & 0x7F) | 1, static_cast<int>(number & 0x7F) | 1);
  else if (conversion.IsText())
    CompareText(room, conversion, text);
  else
    CompareNumber(room, conversion, number);
  std::wstring format = input.WideRest(false);
  std::erase_if(format, [](WCHAR c) { return c != 0 && std::strchr("sSdiuxXc*", c); }); // what takes an argument
  Print(room, format);
  return 0;
}
