// The wide printf family: its bounds, and the C library's narrow one as what it must agree with.
#include "platform/text/Text.h"
#include "tests/fuzz/fuzz.h"

#include <cstring>

namespace {

/// One conversion; its width is an argument, and so is the precision if there is one.
struct Conversion {
  explicit Conversion(Input &input) {
    static constexpr char const *kLengths[] = {"", "l", "ll", "h"};
    unsigned const bits = input.Byte(), choice = input.Byte();
    for (unsigned bit = 0; bit < 5; ++bit)
      flags += bits >> bit & 1 ? std::string(1, "-+ 0#"[bit]) : "";
    type = "sSdiuxXc"[choice & 7];
    length = kLengths[choice >> 3 & 3];
    hasPrecision = (choice & 0x20) != 0;
    width = static_cast<int>(input.Byte()) - 64;
    precision = static_cast<int>(input.Byte()) - 8;
  }
  bool IsNarrow() const { return length == "h" || (type == "S" && length.empty()); }

  std::string flags, length, type;
  bool hasPrecision;
  int width, precision;
};

/// Formats into `room` units. Returns: what was printed.
template <class... Arguments> std::wstring Print(std::size_t room, std::string const &format, Arguments... arguments) {
  Exact<WCHAR> const out(std::wstring(room, L'#')), wide(std::wstring(format.begin(), format.end()), 1);
  int const length = _snwprintf_s(out.units.get(), room, _TRUNCATE, wide.units.get(), arguments...);
  std::size_t const end = out.view.find(L'\0');
  Require(length == static_cast<int>(end) || (length == -1 && end + 1 == room), "the length, or cut at the end");
  return std::wstring(out.view.substr(0, end)) + (length == -1 ? L"|cut" : L"");
}

/// Prints an argument with the platform, and with the C library `meant`, which is the same to it.
template <class Given, class Meant> void Compare(std::size_t room, Conversion const &c, Given given, Meant meant) {
  std::string const stars = c.hasPrecision ? "*.*" : "*", format = '%' + c.flags + stars + c.length + c.type;
  bool const isText = c.type == "s" || c.type == "S" || c.type == "c"; // where only "-" has a meaning
  std::string const plain = (c.flags.starts_with('-') ? "%-" : "%") + stars + (c.type == "c" ? 'c' : 's');
  char const *const text = isText ? plain.c_str() : format.c_str();
  char out[1024];
  if (c.hasPrecision)
    std::snprintf(out, sizeof out, text, c.width, c.precision, meant);
  else
    std::snprintf(out, sizeof out, text, c.width, meant);
  std::string expected = out;
  if (expected.size() >= room)
    expected.replace(room - 1, std::string::npos, "|cut");
  std::wstring const printed =
      c.hasPrecision ? Print(room, format, c.width, c.precision, given) : Print(room, format, c.width, given);
  Require(printed == std::wstring(expected.begin(), expected.end()), "the C library prints the same");
}

/// A text; one that the precision ends has no terminator.
void CompareText(std::size_t room, Conversion const &c, std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char unit) { return unit <= 0; }, 'z');
  if (c.IsNarrow())
    return Compare(room, c, Exact<char>(text, 1).units.get(), text.c_str());
  bool const isEnded = c.hasPrecision && c.precision >= 0 && static_cast<int>(text.size()) >= c.precision;
  text.resize(isEnded ? c.precision : text.size());
  Compare(room, c, Exact<WCHAR>(std::wstring(text.begin(), text.end()), isEnded ? 0 : 1).units.get(), text.c_str());
}

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {
  Input input = Of(data, size);
  std::size_t const room = input.Byte() + 1;
  Conversion const c(input);
  unsigned long long number = 0;
  for (int index = 0; index < 8; ++index)
    number = number << 8 | input.Byte();
  std::string text(input.rest.substr(0, 512));
  if (c.type == "c")
    Compare(room, c, static_cast<int>(number & 0x7F) | 1, static_cast<int>(number & 0x7F) | 1);
  else if (c.type == "s" || c.type == "S")
    CompareText(room, c, text);
  else if (c.length == "l" || c.length == "ll")
    Compare(room, c, number, number); // long and long long are the same
  else
    Compare(room, c, static_cast<int>(number), static_cast<int>(number));
  std::erase_if(text, [](char unit) { return unit != 0 && std::strchr("sSdiuxXc*", unit); }); // no argument is left
  Print(room, text);
  return 0;
}
