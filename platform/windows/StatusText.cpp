// Status texts that are wide in every state. Any thread; the callback runs on the thread that makes the call.
#include "platform/http/InternetStatus.h"

#include <array>
#include <atomic>
#include <cstring>

namespace {

constexpr std::size_t kTextSize = 1024; // wide characters; a host or an address is shorter

std::atomic<INTERNET_STATUS_CALLBACK> g_receiver = nullptr;

bool HasText(DWORD status) {
  return status == INTERNET_STATUS_RESOLVING_NAME || status == INTERNET_STATUS_NAME_RESOLVED ||
         status == INTERNET_STATUS_CONNECTING_TO_SERVER || status == INTERNET_STATUS_CONNECTED_TO_SERVER;
}

/// Hosts and addresses begin with ASCII, so that the second byte of a wide one is zero.
bool IsNarrow(void const *text, DWORD length) {
  auto const *const bytes = static_cast<char const *>(text);
  return length > 1 && bytes[0] != 0 && bytes[1] != 0;
}

void CALLBACK Widen(HINTERNET handle, DWORD_PTR context, DWORD status, void *information, DWORD length) {
  INTERNET_STATUS_CALLBACK const receiver = g_receiver;
  if (!receiver)
    return;
  if (!HasText(status) || !information || !IsNarrow(information, length))
    return receiver(handle, context, status, information, length);
  std::array<WCHAR, kTextSize> text = {};
  MultiByteToWideChar(CP_ACP, 0, static_cast<char const *>(information), -1, text.data(), kTextSize - 1);
  receiver(handle, context, status, text.data(), static_cast<DWORD>(std::wcslen(text.data()) * sizeof(WCHAR)));
}

} // namespace

INTERNET_STATUS_CALLBACK SetWideStatusCallback(HINTERNET hSession, INTERNET_STATUS_CALLBACK pfnCallback) {
  INTERNET_STATUS_CALLBACK const earlier = g_receiver.exchange(pfnCallback);
  InternetSetStatusCallbackW(hSession, pfnCallback ? Widen : nullptr);
  return earlier;
}
