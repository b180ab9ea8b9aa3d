// The stages follow the wire: open, declare the length, text parts, file parts, closing line, status, reply. A failed
// stage abandons the request; nothing is retried.
#include "upload/Uploader.h"

#include "framework/Handles.h"
#include "platform/base/Clock.h"
#include "platform/base/LastError.h"
#include "upload/MultipartBody.h"
#include "upload/ProgressMeter.h"

#include <memory>
#include <new>
#include <utility>

namespace {

constexpr DWORD kSmallestChunk = 0x8000; // bytes
constexpr DWORD kLargestChunk = 0x1000000;
constexpr DWORD kFastWrite = 500;  // ms; a write under it doubles the chunk
constexpr DWORD kSlowWrite = 1250; // ms; a write over it halves the chunk
constexpr DWORD kPause = 50;       // ms after each chunk
constexpr DWORD kRequestFlags = INTERNET_FLAG_EXISTING_CONNECT | INTERNET_FLAG_NO_CACHE_WRITE | INTERNET_FLAG_SECURE;

// The calling thread's last error as an HRESULT: 0, or a value that is negative as a signed number, stays as it is; any
// other becomes a failure with its low 16 bits as the code.
HRESULT HResultFromLastError() {
  auto const error = static_cast<HRESULT>(GetLastError());
  if (error <= 0)
    return error;
  return static_cast<HRESULT>((static_cast<DWORD>(error) & 0xFFFF) | 0x80070000U);
}

// The chunk loop's buffer, which grows after fast writes and shrinks after slow ones.
class Chunk {
public:
  Chunk() { Allocate(); }
  bool IsAllocated() const { return m_pBuffer != nullptr; }
  BYTE *Buffer() const { return m_pBuffer.get(); }
  DWORD Size() const { return m_dwSize; }
  /// Adapts the size to how long the last write took. A fast or slow write gets a new buffer even at an unchanged size.
  void Adapt(DWORD dwMilliseconds) {
    if (dwMilliseconds >= kFastWrite && dwMilliseconds <= kSlowWrite)
      return;
    if (dwMilliseconds < kFastWrite)
      m_dwSize = m_dwSize < kLargestChunk ? m_dwSize * 2 : m_dwSize;
    else
      m_dwSize = m_dwSize / 2 > kSmallestChunk ? m_dwSize / 2 : kSmallestChunk;
    m_pBuffer.reset(); // first, so that only one chunk is ever allocated
    Allocate();
  }

private:
  void Allocate() { m_pBuffer.reset(new (std::nothrow) BYTE[m_dwSize]); }

  DWORD m_dwSize = kSmallestChunk;
  std::unique_ptr<BYTE[]> m_pBuffer;
};

bool Write(HINTERNET hRequest, std::string const &bytes) {
  DWORD dwWritten = 0;
  return InternetWriteFile(hRequest, bytes.data(), static_cast<DWORD>(bytes.size()), &dwWritten);
}

} // namespace

void SessionHandle::Set(HINTERNET hInternet) {
  SectionLock const lock(m_section);
  m_hInternet = hInternet;
}

void SessionHandle::Close() {
  SectionLock const lock(m_section);
  if (m_hInternet)
    InternetCloseHandle(std::exchange(m_hInternet, nullptr));
}

HRESULT Uploader::Post() {
  HRESULT hr = E_OUTOFMEMORY;
  try {
    HINTERNET const hInternet = InternetOpenW(L"WinInetPost/0.0.4", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0);
    m_session.Set(hInternet);
    hr = hInternet ? Transfer(hInternet) : HResultFromLastError();
  } catch (std::bad_alloc const &) {
    // reported like any other failure, as E_OUTOFMEMORY
  }
  m_session.Close();
  m_pResult->m_hr = hr;
  return hr;
}

HRESULT Uploader::Transfer(HINTERNET hInternet) {
  auto const dwContext = reinterpret_cast<DWORD_PTR>(this);
  InternetSetStatusCallbackW(hInternet, StatusCallback);
  InternetHandle const connection(InternetConnectA(hInternet, m_pJob->m_strHost.c_str(), INTERNET_DEFAULT_HTTPS_PORT,
                                                   nullptr, nullptr, INTERNET_SERVICE_HTTP, 0, dwContext));
  if (!connection)
    return HResultFromLastError();
  InternetHandle const request(HttpOpenRequestA(connection.get(), "POST", m_pJob->m_strPath.c_str(), nullptr, nullptr,
                                                nullptr, kRequestFlags, dwContext));
  HINTERNET const hRequest = request.get();
  if (!hRequest)
    return HResultFromLastError();

  std::string const boundary = MakeBoundary();
  if (!HttpAddRequestHeadersA(hRequest, MakeContentTypeHeader(boundary).c_str(), static_cast<DWORD>(-1),
                              HTTP_ADDREQ_FLAG_ADD))
    return HResultFromLastError();
  DWORD dwFilesTotal = 0;
  INTERNET_BUFFERSW buffers = {};
  buffers.dwStructSize = sizeof buffers;
  buffers.dwBufferTotal = BodyLength(*m_pJob, boundary, dwFilesTotal);
  if (!HttpSendRequestExW(hRequest, &buffers, nullptr, HSR_INITIATE, 0))
    return HResultFromLastError();
  if (HRESULT const hr = SendBody(hRequest, boundary, dwFilesTotal); FAILED(hr))
    return hr;
  if (!HttpEndRequestW(hRequest, nullptr, 0, dwContext))
    return HResultFromLastError();

  DWORD dwStatus = 0;
  DWORD dwLength = sizeof dwStatus;
  // Otherwise the owner's -1 stays: an upload without a status is not an accepted one.
  if (HttpQueryInfoW(hRequest, HTTP_QUERY_STATUS_CODE | HTTP_QUERY_FLAG_NUMBER, &dwStatus, &dwLength, nullptr))
    m_pResult->m_nHttpStatus = static_cast<int>(dwStatus);
  ReadReply(hRequest);
  return S_OK;
}

HRESULT Uploader::SendBody(HINTERNET hRequest, std::string const &boundary, DWORD dwFilesTotal) {
  UploadFields fields;
  m_pJob->GetFields(fields);
  for (auto const &[name, value] : fields)
    if (!Write(hRequest, MakeFieldHead(boundary, name)) || !Write(hRequest, value) || !Write(hRequest, MakeLineEnd()))
      return HResultFromLastError();

  UploadFiles files;
  m_pJob->GetFiles(files);
  DWORD dwAllSent = 0;
  for (UploadFile const &file : files)
    if (HRESULT const hr = SendFile(hRequest, boundary, file, dwAllSent, dwFilesTotal); FAILED(hr))
      return hr;
  return Write(hRequest, MakeClosing(boundary)) ? S_OK : HResultFromLastError();
}

HRESULT Uploader::SendFile(HINTERNET hRequest, std::string const &boundary, UploadFile const &file, DWORD &dwAllSent,
                           DWORD dwFilesTotal) {
  if (!Write(hRequest, MakeFileHead(boundary, file)))
    return HResultFromLastError();
  KernelHandle hFile = OpenForReading(file.m_strPath);
  if (hFile.get() == INVALID_HANDLE_VALUE)
    return HResultFromLastError();
  m_pProgress->OnFileBegin(file.m_strPath.c_str());
  HRESULT const hr = SendChunks(hRequest, file, hFile.get(), dwAllSent, dwFilesTotal);
  if (FAILED(hr)) {
    hFile.reset();
    m_pProgress->OnFileComplete(file.m_strPath.c_str(), hr);
    return hr;
  }
  m_pProgress->OnFileComplete(file.m_strPath.c_str(), S_OK);
  hFile.reset();
  return Write(hRequest, MakeLineEnd()) ? S_OK : HResultFromLastError();
}

HRESULT Uploader::SendChunks(HINTERNET hRequest, UploadFile const &file, HANDLE hFile, DWORD &dwAllSent,
                             DWORD dwFilesTotal) {
  DWORD const dwFileTotal = GetFileSize(hFile, nullptr);
  ProgressMeter meter(m_pJob->m_dwRate, GetTickCount(), dwFileTotal, dwFilesTotal, dwAllSent);
  Chunk chunk;
  Report(file, meter.First());
  while (!m_pProgress->IsCancelled()) {
    if (!chunk.IsAllocated())
      return E_OUTOFMEMORY;
    DWORD dwRead = 0;
    if (!ReadFile(hFile, chunk.Buffer(), chunk.Size(), &dwRead, nullptr))
      return HResultFromLastError();
    if (dwRead == 0) {
      m_pJob->m_dwRate = meter.Rate();
      Report(file, meter.Last());
      return S_OK;
    }
    DWORD dwWritten = 0;
    DWORD const dwBefore = GetTickCount();
    if (!InternetWriteFile(hRequest, chunk.Buffer(), dwRead, &dwWritten))
      return HResultFromLastError();
    chunk.Adapt(GetTickCount() - dwBefore);
    meter.AddSent(dwWritten);
    Sleep(kPause);
    if (ProgressReport report; meter.Periodic(GetTickCount(), report))
      Report(file, report);
  }
  return UPLOAD_E_CANCELLED;
}

void Uploader::Report(UploadFile const &file, ProgressReport const &report) {
  m_pProgress->OnFileProgress(file.m_strPath.c_str(), report.dwFileSent, report.dwFileTotal, report.dwFileTimeRemaining,
                              report.dwAllSent, report.dwAllTotal, report.dwAllTimeRemaining, report.dwRate);
}

void Uploader::ReadReply(HINTERNET hRequest) {
  m_strReply.clear();
  // When reading fails, or memory runs out, the reply is what has been read so far.
  try {
    for (DWORD dwAvailable = 0; InternetQueryDataAvailable(hRequest, &dwAvailable, 0, 0);) {
      std::string block(static_cast<std::size_t>(dwAvailable), '\0');
      DWORD dwRead = 0;
      if (!InternetReadFile(hRequest, block.data(), dwAvailable, &dwRead) || dwRead == 0)
        return;
      block.resize(dwRead);
      m_strReply += block.c_str();
    }
  } catch (std::bad_alloc const &) {
    return;
  }
}

void CALLBACK Uploader::StatusCallback(HINTERNET, DWORD_PTR dwContext, DWORD dwStatus, void *pInformation, DWORD) {
  BackgroundUploadProgress *const pProgress = reinterpret_cast<Uploader *>(dwContext)->m_pProgress;
  auto const wszText = static_cast<WCHAR const *>(pInformation);
  auto const pdwBytes = static_cast<DWORD const *>(pInformation);
  switch (dwStatus) {
  case INTERNET_STATUS_RESOLVING_NAME:
    return pProgress->OnResolvingName(wszText);
  case INTERNET_STATUS_NAME_RESOLVED:
    return pProgress->OnNameResolved(wszText);
  case INTERNET_STATUS_CONNECTING_TO_SERVER:
    return pProgress->OnConnectingToServer(wszText);
  case INTERNET_STATUS_CONNECTED_TO_SERVER:
    return pProgress->OnConnectedToServer(wszText);
  case INTERNET_STATUS_SENDING_REQUEST:
    return pProgress->OnSendingRequest();
  case INTERNET_STATUS_REQUEST_SENT:
    return pProgress->OnRequestSent(*pdwBytes);
  case INTERNET_STATUS_RECEIVING_RESPONSE:
    return pProgress->OnReceivingResponse();
  case INTERNET_STATUS_RESPONSE_RECEIVED:
    return pProgress->OnResponseReceived(*pdwBytes);
  case INTERNET_STATUS_CLOSING_CONNECTION:
    return pProgress->OnClosingConnection();
  case INTERNET_STATUS_CONNECTION_CLOSED:
    return pProgress->OnConnectionClosed();
  default:
    return;
  }
}
