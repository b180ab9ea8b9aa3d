// Where the stages of an exchange are reported. Called on the thread that makes the call, also from libcurl's frames.
#pragma once

#include "platform/http/InternetStatus.h"

#include <cstddef>
#include <string>

/// Calls the callback; does nothing without one, or with a zero context.
struct StatusSink {
  INTERNET_STATUS_CALLBACK callback = nullptr;
  HINTERNET handle = nullptr;
  DWORD_PTR context = 0;

  void Report(DWORD status, void *information = nullptr, std::size_t length = 0) const noexcept try {
    if (callback && context)
      callback(handle, context, status, information, static_cast<DWORD>(length));
  } catch (...) { // nothing may pass through libcurl's frames
  }
  void ReportText(DWORD status, std::wstring text) const noexcept {
    Report(status, text.data(), (text.size() + 1) * sizeof(WCHAR));
  }
  void ReportCount(DWORD status, std::size_t count) const noexcept {
    DWORD value = static_cast<DWORD>(count);
    Report(status, &value, sizeof value);
  }
};
