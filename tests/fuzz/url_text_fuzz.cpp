// The percent decoder.
#include "reply/UrlText.h"
#include "tests/fuzz/fuzz.h"

namespace {

constexpr std::size_t kMostCharacters = 2047;

std::wstring Encoded(std::wstring_view text) {
  std::wstring encoded;
  for (wchar_t const c : text) {
    wchar_t const escape[] = {L'%', L"0123456789abcdef"[(c >> 4) & 15], L"0123456789ABCDEF"[c & 15], 0};
    encoded += c > 0 && c < 256 ? escape : std::wstring(1, c);
  }
  return encoded;
}

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const *data, std::size_t size) {
  Input input(data, size);
  std::wstring const text = input.WideRest((input.Byte() & 1) != 0);
  std::wstring const decoded = DecodeURLText(Exact<wchar_t>(text, 1).Data());
  std::wstring_view const given = text.c_str();
  Require(decoded.size() <= std::min(given.size(), kMostCharacters), "a decoded text is bounded");
  Require(decoded.find(L'\0') == decoded.npos, "a decoded text holds no zero");
  std::wstring_view const plain = given.substr(0, std::min(given.find(L'%'), kMostCharacters));
  Require(decoded.starts_with(plain), "what precedes the first escape stays");
  Require(DecodeURLText(Exact<wchar_t>(Encoded(decoded), 1).Data()) == decoded, "an encoded text decodes to itself");
  return 0;
}
