// See StatusSink.h.
#include "platform/http/StatusSink.h"

void StatusSink::Report(DWORD status, void *information, std::size_t length) const noexcept {
  if (!callback || !context)
    return;
  try {
    callback(handle, context, status, information, static_cast<DWORD>(length));
  } catch (...) {
    // nothing may pass through libcurl's frames
  }
}

void StatusSink::ReportText(DWORD status, std::wstring text) const noexcept {
  Report(status, text.data(), (text.size() + 1) * sizeof(WCHAR));
}

void StatusSink::ReportCount(DWORD status, std::size_t count) const noexcept {
  DWORD value = static_cast<DWORD>(count);
  Report(status, &value, sizeof value);
}
