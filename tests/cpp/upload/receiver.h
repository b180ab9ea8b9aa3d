// A receiver of an upload's progress that records each call. It belongs to the thread that constructs it and marks
// calls from any other.
#pragma once

#include "upload/UploadProgress.h"

#include <string>
#include <thread>
#include <vector>

struct Receiver : BackgroundUploadProgress {
  std::wstring calls;          // each call with its arguments: "sent 57; closing; "
  std::string files;           // only those about files: "begin 0/4 4/4 done "
  std::vector<DWORD> writes;   // the bytes of each write
  int nQueriesBeforeStop = -1; // the index of the query that answers yes; negative: none

  void OnResolvingName(WCHAR const *text) override { Note(L"resolving ", text); }
  void OnNameResolved(WCHAR const *text) override { Note(L"resolved ", text); }
  void OnConnectingToServer(WCHAR const *text) override { Note(L"connecting ", text); }
  void OnConnectedToServer(WCHAR const *text) override { Note(L"connected ", text); }
  void OnSendingRequest() override { Note(L"sending"); }
  void OnRequestSent(DWORD bytes) override {
    Note(L"sent ", std::to_wstring(bytes));
    writes.push_back(bytes);
  }
  void OnReceivingResponse() override { Note(L"receiving"); }
  void OnResponseReceived(DWORD bytes) override { Note(L"received ", std::to_wstring(bytes)); }
  void OnClosingConnection() override { Note(L"closing"); }
  void OnConnectionClosed() override { Note(L"closed"); }
  void OnFileBegin(WCHAR const *path) override { Note(L"begin ", path, "begin "); }
  void OnFileProgress(WCHAR const *path, DWORD a, DWORD b, DWORD c, DWORD d, DWORD e, DWORD f, DWORD g) override {
    std::wstring numbers = path;
    for (DWORD const number : {a, b, c, d, e, f, g})
      numbers += L" " + std::to_wstring(number);
    Note(L"progress ", numbers, std::to_string(a) + "/" + std::to_string(b) + " ");
  }
  void OnFileComplete(WCHAR const *path, HRESULT hr) override {
    Note(L"complete ", path + std::to_wstring(hr), hr == 0 ? "done " : "failed ");
  }
  bool IsCancelled() override { return nQueriesBeforeStop-- == 0; }
  void OnBackgroundUploadBegin() override { Note(L"upload begin"); }
  void OnBackgroundUploadComplete(long hr) override { Note(L"upload complete ", std::to_wstring(hr)); }

private:
  void Note(std::wstring const &call, std::wstring const &argument = L"", std::string const &file = "") {
    calls += (std::this_thread::get_id() == m_owner ? call + argument : L"on another thread") + L"; ";
    files += file;
  }
  std::thread::id m_owner = std::this_thread::get_id();
};
