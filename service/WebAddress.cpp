#include "service/WebAddress.h"

#include <algorithm>
#include <iterator>
#include <string>

namespace {

struct Range {
  char32_t first, last;
};
constexpr Range kRefused[] = {
    {0x00, 0x1F},     // control characters
    {0x7F, 0x9F},     // further ones
    {0x200E, 0x200F}, // direction marks, which RFC 3987 (section 4.1) forbids like the next
    {0x202A, 0x202E}, // direction embeddings and overrides
};

bool IsRefused(wchar_t unit) {
  auto const character = static_cast<char32_t>(unit);
  return std::any_of(std::begin(kRefused), std::end(kRefused),
                     [=](Range const &range) { return range.first <= character && character <= range.last; });
}

/// `rest` is what follows "://": [user@]host[:port] up to the first delimiter. Browsers treat a backslash as a slash.
bool HasHost(std::wstring_view rest) {
  std::wstring_view const authority = rest.substr(0, rest.find_first_of(L"/\\?#"));
  std::wstring_view const host = authority.substr(authority.rfind(L'@') + 1); // without an '@', npos + 1 is 0
  auto const first = host.find_first_not_of(L' ');
  return first != std::wstring_view::npos && host[first] != L':';
}

} // namespace

bool IsWebAddress(std::wstring_view address) {
  if (std::any_of(address.begin(), address.end(), IsRefused))
    return false;
  auto const colon = address.find(L"://");
  if (colon == std::wstring_view::npos || !HasHost(address.substr(colon + 3)))
    return false;
  std::wstring scheme(address.substr(0, colon));
  for (wchar_t &unit : scheme)
    if (unit >= L'A' && unit <= L'Z')
      unit = static_cast<wchar_t>(unit + (L'a' - L'A'));
  return scheme == L"http" || scheme == L"https";
}
