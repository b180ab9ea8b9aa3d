// See AnsiText.h.
#include "platform/text/AnsiText.h"

#include "platform/text/CodePages.h"

std::string AnsiFromWide(std::wstring_view text) {
  auto const cch = static_cast<int>(text.size());
  int const cb = cch == 0 ? 0 : WideCharToMultiByte(CP_THREAD_ACP, 0, text.data(), cch, nullptr, 0, nullptr, nullptr);
  std::string bytes(static_cast<std::size_t>(cb), '\0');
  if (cb > 0)
    WideCharToMultiByte(CP_THREAD_ACP, 0, text.data(), cch, bytes.data(), cb, nullptr, nullptr);
  return bytes;
}

std::wstring WideFromAnsi(std::string_view text) {
  auto const cb = static_cast<int>(text.size());
  std::wstring wide(text.size(), L'\0'); // no character set makes more characters than bytes
  int const cch = cb == 0 ? 0 : MultiByteToWideChar(CP_THREAD_ACP, 0, text.data(), cb, wide.data(), cb);
  wide.resize(static_cast<std::size_t>(cch));
  return wide;
}
