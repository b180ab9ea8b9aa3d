// The interface through which the engine tells the outside world what it does and learns whether to stop.
// Every operation is called on the upload thread; texts and paths are borrowed for the call. A receiver implements all
// 16 and, except for IsCancelled, has no way to answer.
#pragma once

#include "platform/base/Types.h"

class UploadProgress {
public:
  // A connection's stages; the text is the host or the address.
  virtual void OnResolvingName(WCHAR const *wszText) = 0;
  virtual void OnNameResolved(WCHAR const *wszText) = 0;
  virtual void OnConnectingToServer(WCHAR const *wszText) = 0;
  virtual void OnConnectedToServer(WCHAR const *wszText) = 0;
  virtual void OnSendingRequest() = 0;
  virtual void OnRequestSent(DWORD dwBytes) = 0;
  virtual void OnReceivingResponse() = 0;
  virtual void OnResponseReceived(DWORD dwBytes) = 0;
  virtual void OnClosingConnection() = 0;
  virtual void OnConnectionClosed() = 0;

  /// A file was opened for sending.
  virtual void OnFileBegin(WCHAR const *wszPath) = 0;
  /// Bytes of file contents, modulo 2^32; times in ticks of 500 ms; the rate in bytes per tick.
  virtual void OnFileProgress(WCHAR const *wszPath, DWORD dwFileSent, DWORD dwFileTotal, DWORD dwFileTimeRemaining,
                              DWORD dwAllSent, DWORD dwAllTotal, DWORD dwAllTimeRemaining, DWORD dwRate) = 0;
  /// A file that was opened is done: 0, or the failure that ended it.
  virtual void OnFileComplete(WCHAR const *wszPath, HRESULT hr) = 0;
  /// True to stop the upload. Must answer at once and without another thread's help.
  virtual bool IsCancelled() = 0;

protected:
  ~UploadProgress() = default;
};

class BackgroundUploadProgress : public UploadProgress {
public:
  virtual void OnBackgroundUploadBegin() = 0;
  /// The last call of every upload, with its outcome.
  virtual void OnBackgroundUploadComplete(long hr) = 0;

protected:
  ~BackgroundUploadProgress() = default;
};
