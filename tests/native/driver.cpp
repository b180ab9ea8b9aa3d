// Runs one case of the comparison of both systems and prints what happened. One source for both: a line that differs is
// a difference of the systems. tests/native/compare.py knows the cases and plays the peers.
#include "framework/CW2A.h"
#include "platform/base/Clock.h"
#include "platform/base/LastError.h"
#include "platform/system/Debug.h"
#include "platform/system/Files.h"
#include "platform/text/Text.h"
#include "publish/CUploadProgressProxyWindow.h"
#include "publish/PresetForm.h"
#include "reply/Document.h"
#include "service/ReachabilityProbe.h"
#include "service/ServiceExchange.h"
#include "tests/cpp/upload/receiver.h"
#include "trace/Trace.h"
#include "upload/UploadThread2.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string_view>
#include <type_traits>

namespace {

constexpr DWORD kDeadline = 30'000; // ms
constexpr int kFiles = 13;

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
  std::wstring paths[kFiles], names[kFiles];
  PresetFile files[kFiles];
  for (int n = 0; n < kFiles; ++n) {
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
  for (DWORD const start = GetTickCount();
       target.calls.find(L"upload complete") == std::wstring::npos && GetTickCount() - start < kDeadline;
       PumpMessages(64))
    WaitForMessages(200);
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

// probe URL...
void Probe(char **arguments) {
  for (; *arguments; ++arguments) {
    std::atomic<HINTERNET> session = nullptr, connection = nullptr;
    std::atomic<BOOL> isReachable = FALSE;
    ReachabilityProbe probe(session, connection, isReachable);
    Print("probe", *arguments, probe.CheckServerReachable(*arguments), session == nullptr, connection == nullptr);
  }
}

// What is posted to a window, to one that is gone, and to none.
void Windows(char **) {
  Receiver receiver;
  CUploadProgressProxyWindow proxy(&receiver), none(&receiver);
  proxy.CreateProxyWindow();
  auto const pump = [&receiver](int limit) {
    int const holds = WaitForMessages(0), ran = PumpMessages(limit);
    Print("pumped", holds, ran, receiver.calls);
  };
  pump(1);
  for (DWORD const n : {1, 2, 3})
    proxy.OnRequestSent(n);
  for (int const limit : {1, 1, 64, 1})
    pump(limit);
  {
    CUploadProgressProxyWindow gone(&receiver);
    gone.CreateProxyWindow();
    gone.OnBackgroundUploadComplete(1);
  }
  none.OnBackgroundUploadComplete(1);
  BOOL const isPosted = PostMessageW(reinterpret_cast<HWND>(0x7FF0), WM_APP, 0, 0);
  Print("lost", isPosted, GetLastError(), none.TakeLostCompletion());
  pump(64);
}

// texts FILE: replies, separated by "|" in the file, as they are read; and every other conversion of text.
void Texts(char **arguments) {
  std::ifstream file(arguments[0], std::ios::binary);
  for (std::string reply; std::getline(file, reply, '|');) {
    CString text;
    Print("reply", reply, static_cast<int>(ReadElement(LoadReply(reply), L"a/b", text)), text);
  }
  for (char const *bytes : {"abc", "\xC3\xA9", "\xF0\x9F\x98\x80z", "\xFFz", "a\xE2\x82", "\xC0\x80", "\xED\xA0\xBD"}) {
    WCHAR wide[16] = L"";
    MultiByteToWideChar(CP_UTF8, 0, bytes, -1, wide, 16);
    Print("wide", bytes, wide);
  }
  for (WCHAR const *text : {L"12", L" 12x", L"-5", L"+-7", L"0x10", L"", L"99999999999", L"-99999999999"})
    Print("number", text, _wtoi(text));
  WCHAR line[12] = L"";
  for (WCHAR const *format : {L"%s|%S", L"[%s %S]"})
    Print("format", format, _snwprintf_s(line, 12, _TRUNCATE, format, L"wide", "narrow"), line);
  Print("rounded", MulDiv(100, 1, 3), MulDiv(-100, 1, 200), MulDiv(1, 1, 0), MulDiv(2'000'000'000, 2'000'000'000, 1));
  for (DWORD const error : {8U, 12002U, 12007U, 12175U, 4711U}) {
    WCHAR sentence[80] = L"";
    auto *const exception = new CInternetException(error);
    exception->GetErrorMessage(sentence, 80);
    exception->Delete();
    Print("sentence", error, sentence);
  }
}

// files FOLDER: what opening and looking up a path says.
void Files(char **arguments) {
  for (WCHAR const *name : {L"/0.bin", L"/no.bin", L"/no/0.bin", L"", L"/0.bin/", L"/a<b", L"/a\nb", L"/0.BIN"}) {
    std::wstring const path = Wide(arguments[0]) + name;
    SetLastError(0);
    BOOL const isThere = PathFileExistsW(path.c_str());
    HANDLE const file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    DWORD const error = GetLastError();
    Print("file", name, isThere, file != INVALID_HANDLE_VALUE, error, GetFileSize(file, nullptr));
    CloseHandle(file);
  }
}

// Lines of the trace, which every other case writes, too, where an exchange fails.
void Trace(char **) {
  TraceMsgA("narrow %d %s %S", 1, "n", L"w");
  TraceMsgW(L"wide %d %s %S", 2, L"w", "n");
  TraceInit(std::string(64, 'x').c_str());
  TraceMsgW(L"%s", std::wstring(2000, L'y').c_str());
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
  struct {
    std::string_view name;
    int arguments;
    void (*run)(char **arguments);
  } const cases[] = {{"upload", 5, Upload}, {"exchange", 4, Exchange}, {"probe", 1, Probe}, {"windows", 0, Windows},
                     {"texts", 1, Texts},   {"files", 1, Files},       {"trace", 0, Trace}};
#ifdef _WIN32
  AddVectoredExceptionHandler(1, ShowDebugOutput);
#endif
  CoInitialize(nullptr);
  TraceInit("Driver");
  for (auto const &[name, needed, run] : cases) {
    if (count >= 2 && name == arguments[1] && count - 2 >= needed) {
      run(arguments + 2);
      return 0;
    }
  }
  return 2;
}
