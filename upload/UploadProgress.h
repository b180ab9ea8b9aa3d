// The interface through which the engine reports an upload's progress and asks whether to stop.
// Thread: every function is called on the upload thread and must not throw. Texts and paths are borrowed for the call.
// A receiver implements all 16; only IsCancelled returns anything to the engine.
#pragma once

#include "platform/base/Types.h"

class UploadProgress {
public:
  // The stages of the connection; the text is the host or its address.
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

  /// A file has been opened for sending.
  virtual void OnFileBegin(WCHAR const *wszPath) = 0;
  /// Bytes of file contents, modulo 2^32; times in ticks of 500 ms; the rate in bytes per tick.
  virtual void OnFileProgress(WCHAR const *wszPath, DWORD dwFileSent, DWORD dwFileTotal, DWORD dwFileTimeRemaining,
                              DWORD dwAllSent, DWORD dwAllTotal, DWORD dwAllTimeRemaining, DWORD dwRate) = 0;
  /// An opened file is done: 0 if it was sent completely, else the failure that ended it.
  virtual void OnFileComplete(WCHAR const *wszPath, HRESULT hr) = 0;
  /// True stops the upload. Must return at once, without waiting for another thread.
  virtual bool IsCancelled() = 0;

protected:
  ~UploadProgress() = default;
};

class BackgroundUploadProgress : public UploadProgress {
public:
  virtual void OnBackgroundUploadBegin() = 0;
  /// The last call of every upload, with its result.
  virtual void OnBackgroundUploadComplete(long hr) = 0;

protected:
  ~BackgroundUploadProgress() = default;
};
