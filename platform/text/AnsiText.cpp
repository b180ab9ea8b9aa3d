// See AnsiText.h.
#include "platform/text/AnsiText.h"

#include "platform/text/CodePages.h"

std::string AnsiFromWide(std::wstring_view text) {
  auto const length = static_cast<int>(text.size());
  int const size =
      length == 0 ? 0 : WideCharToMultiByte(CP_THREAD_ACP, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
  std::string bytes(static_cast<std::size_t>(size), '\0');
  if (size > 0)
    WideCharToMultiByte(CP_THREAD_ACP, 0, text.data(), length, bytes.data(), size, nullptr, nullptr);
  return bytes;
}

std::wstring WideFromAnsi(std::string_view text) {
  auto const size = static_cast<int>(text.size());
  auto const convert = [&](WCHAR *wide, int length) {
    return size == 0 ? 0 : MultiByteToWideChar(CP_THREAD_ACP, 0, text.data(), size, wide, length);
  };
  std::wstring wide(text.size(), L'\0');
  int length = convert(wide.data(), size);
  if (length == 0 && size != 0) { // TSCII, for one, has bytes that stand for several characters
    length = convert(nullptr, 0);
    wide.resize(static_cast<std::size_t>(length));
    length = convert(wide.data(), length);
  }
  wide.resize(static_cast<std::size_t>(length));
  return wide;
}
