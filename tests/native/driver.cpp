// Runs one case of the comparison of both systems and prints what happened. One source for both: a line that differs is
// a difference of the systems. tests/native/compare.py knows the cases and plays the peers.
#include "framework/CW2A.h"
#include "platform/base/Clock.h"
#include "platform/base/LastError.h"
#include "platform/system/Debug.h"
#include "publish/CUploadProgressProxyWindow.h"
#include "publish/PresetForm.h"
#include "reply/Document.h"
#include "service/ServiceExchange.h"
#include "tests/cpp/upload/receiver.h"
#include "trace/Trace.h"
#include "upload/UploadThread2.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <type_traits>

namespace {

constexpr DWORD kDeadline = 30'000; // ms

/// Bytes as they are and wide text in UTF-8, so that it does not matter how many units a character takes.
template <class Value> std::string Show(Value const &value) {
  if constexpr (std::is_integral_v<Value>) {
    return std::to_string(value);
  } else if constexpr (!std::is_convertible_v<Value const &, std::string_view>) {
    return Show(CW2A(CString(value), CP_UTF8).m_psz);
  } else {
    std::string shown;
    for (unsigned char const c : std::string_view(value)) {
      char text[8] = "";
      std::snprintf(text, sizeof text, c >= 0x20 && c < 0x7F && c != '\\' ? "%c" : "\\%02X", c);
      shown += text;
    }
    return shown;
  }
}

template <class... Values> void Print(Values const &...values) {
  std::string line;
  ((line += Show(values) + " "), ...);
  std::puts(line.c_str());
}

std::wstring Wide(char const *ascii) { return {ascii, ascii + std::strlen(ascii)}; }

// upload URL TOKEN FOLDER FILE CANCEL: publishes the folder's files 0.bin to 12.bin, with FILE instead of the fifth if
// it is not "-", and says yes to the query with the number CANCEL whether to stop.
void Upload(char **arguments) {
  std::wstring const folder = Wide(arguments[2]) + L"/";
  std::wstring paths[13], names[13];
  PresetFile files[13];
  for (int n = 0; n < 13; ++n) {
    paths[n] = folder + std::to_wstring(n) + (n == 6 ? L"Gr\u00F6\u00DFe \u4E2D \U0001F600.bin" : L".bin");
    names[n] = L"PIPimg_" + std::to_wstring(n);
    files[n] = {paths[n].c_str(), names[n].c_str(), n == 1 ? L"PIPimg" : nullptr};
  }
  if (arguments[3] != std::string("-"))
    files[4].wszPath = (paths[4] = folder + Wide(arguments[3])).c_str();
  PresetField const texts[] = {{"title", L"T\u00EFtle \u4E2D \U0001F600 & <x>", TextRule::Utf8},
                               {"PIPtype", nullptr, TextRule::Utf8},
                               {"tags", L"a,b", TextRule::Utf8UnlessEmpty},
                               {"templateKey", L"key-1", TextRule::Ansi}};
  UploadJob job;
  Print("address", job.SetUrl(arguments[0]), job.m_strHost, job.m_strPath, PresetFilesExist(files));
  job.AddField("token", arguments[1]);
  FillPresetForm(job, texts, files);
  Receiver target;
  target.nQueriesBeforeStop = std::atoi(arguments[4]);
  CUploadProgressProxyWindow proxy(&target);
  proxy.CreateProxyWindow();
  UploadResult result;
  UploadThread2 thread(&job, &result, &proxy);
  Print("started", thread.Start());
  DWORD const start = GetTickCount();
  while (target.calls.find(L"upload complete") == std::wstring::npos && GetTickCount() - start < kDeadline)
    if (WaitForMessages(200))
      PumpMessages(64);
  DWORD const code = thread.Wait();
  Print("calls", target.calls);
  Print("end", code, static_cast<DWORD>(result.m_hr), result.m_nHttpStatus, thread.m_strReply);
}

// exchange KIND HOST OBJECT FORM
void Exchange(char **arguments) {
  auto const kind = static_cast<RequestKind>(std::atoi(arguments[0]));
  std::string reply;
  DWORD const error = RunExchange(kind, [&](ServiceExchange &exchange) {
    Print("sent", exchange.Send(Wide(arguments[1]).c_str(), Wide(arguments[2]).c_str(), arguments[3]));
    reply = exchange.ReadReply();
  });
  Print("exchange", error, reply);
  CComPtr<IXMLDOMDocument> const document = LoadReply(reply);
  for (WCHAR const *path : {L"INFO/APIUrl", L"info/tokenid", L"info/username", L"info/videoId"}) {
    CString text;
    Print(path, static_cast<int>(ReadElement(document, path, text)), text);
  }
}

#ifdef _WIN32
/// Debug output goes to standard error, as it does on the other system.
LONG CALLBACK ShowDebugOutput(EXCEPTION_POINTERS *pointers) {
  EXCEPTION_RECORD const &record = *pointers->ExceptionRecord;
  if (record.ExceptionCode != DBG_PRINTEXCEPTION_C)
    return EXCEPTION_CONTINUE_SEARCH; // wide output comes once more as narrow output
  std::fputs(reinterpret_cast<char const *>(record.ExceptionInformation[1]), stderr);
  return EXCEPTION_CONTINUE_EXECUTION;
}
#endif

} // namespace

int main(int count, char **arguments) {
#ifdef _WIN32
  AddVectoredExceptionHandler(1, ShowDebugOutput);
#endif
  ComScope const com;
  TraceInit("Driver");
  if (count == 7 && arguments[1] == std::string("upload"))
    Upload(arguments + 2);
  else if (count == 6 && arguments[1] == std::string("exchange"))
    Exchange(arguments + 2);
  else
    return 2;
  return 0;
}
