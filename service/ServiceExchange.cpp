#include "service/ServiceExchange.h"

#include "framework/CW2A.h"
#include "platform/base/LastError.h"
#include "platform/text/Text.h"
#include "trace/Trace.h"

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <new>

namespace {

constexpr DWORD kSecureFlags = INTERNET_FLAG_SECURE | INTERNET_FLAG_IGNORE_CERT_DATE_INVALID |
                               INTERNET_FLAG_IGNORE_CERT_CN_INVALID | INTERNET_FLAG_RESYNCHRONIZE;
constexpr DWORD kSecurityOption =
    SECURITY_FLAG_IGNORE_CERT_DATE_INVALID | SECURITY_FLAG_IGNORE_CERT_CN_INVALID | SECURITY_FLAG_IGNORE_REVOCATION;
constexpr int POST = CHttpConnection::HTTP_VERB_POST;
constexpr int GET = CHttpConnection::HTTP_VERB_GET;
constexpr std::size_t kMostDocument = 8 * 1024 * 1024; // bytes
constexpr std::size_t kReadBlock =
    0x10000; // bytes; keeps a declared length from costing memory before its bytes arrive

// clang-format off
constexpr ExchangeVariant kVariants[] = {
    // kind                            operation                agent    verb  port flags                           option form   reply size                 object, reply
    {RequestKind::AddressDetection,    L"UpdateKHURLFromServer", nullptr, GET,  443, INTERNET_FLAG_EXISTING_CONNECT, false, false, ReplySize::ContentLength, 0, kMostDocument},
    {RequestKind::Login,               L"LoginKestrelhub",       L"",     POST, 443, kSecureFlags,                   true,  true,  ReplySize::ContentLength, 0, kMostDocument},
    {RequestKind::PresetCategories,    L"GetPresetCategory",     nullptr, POST, 80,  INTERNET_FLAG_EXISTING_CONNECT, false, false, ReplySize::Available,     254, kMostDocument},
    {RequestKind::EffectByGuid,        L"GetEffectByGUID",       nullptr, POST, 80,  INTERNET_FLAG_EXISTING_CONNECT, false, false, ReplySize::Available,     254, kMostDocument},
    {RequestKind::VideoId,             L"GetVideoID",            nullptr, POST, 80,  INTERNET_FLAG_RELOAD,           false, false, ReplySize::AvailableLoop, 254, kMostDocument},
    {RequestKind::RelatedVideo,        L"SetRelateVideo",        nullptr, POST, 80,  INTERNET_FLAG_EXISTING_CONNECT, false, false, ReplySize::AvailableLoop, 2047, kMostDocument},
    {RequestKind::BlockingRequestSecure, L"SyncSendHttpRequest", L"",     POST, 443, kSecureFlags,                   true,  true,  ReplySize::ContentLength, 0, 0},
    {RequestKind::BlockingRequestPlain,  L"SyncSendHttpRequest", L"",     POST, 80,  INTERNET_FLAG_EXISTING_CONNECT, false, true,  ReplySize::ContentLength, 0, 0},
};
// clang-format on

constexpr bool RowsAreInOrder() {
  std::size_t i = 0;
  for (ExchangeVariant const &variant : kVariants)
    if (variant.kind != static_cast<RequestKind>(i++))
      return false;
  return true;
}
static_assert(RowsAreInOrder(), "a kind is the index of its row");

void RefuseUnless(bool bFits) {
  if (!bFits)
    throw new CInternetException(ERROR_INTERNET_INVALID_URL);
}

bool IsTestHost(CString const &strHost) { return strHost.Find(L"demo") >= 0 || strHost.Find(L"stage") >= 0; }

} // namespace

WCHAR const kFormHeaders[] = L"User-Agent: Tintwright\nContent-Type: application/x-www-form-urlencoded";

ExchangeVariant const &VariantOf(RequestKind kind) { return kVariants[static_cast<std::size_t>(kind)]; }

ServiceExchange::ServiceExchange(ExchangeVariant const &variant)
    : m_variant(variant), m_session(variant.wszAgent, 1, INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0) {}

void ServiceExchange::SetTimeouts(DWORD dwConnect, DWORD dwSend) {
  m_session.SetOption(INTERNET_OPTION_CONNECT_TIMEOUT, dwConnect);
  m_session.SetOption(INTERNET_OPTION_SEND_TIMEOUT, dwSend);
}

BOOL ServiceExchange::Send(WCHAR const *wszHost, WCHAR const *wszObject, char const *szForm) {
  RefuseUnless(HasNoControlCharacter(CW2A(wszHost).m_psz));
  m_pConnection.reset(m_session.GetHttpConnection(wszHost, m_variant.nPort, nullptr, nullptr));
  RefuseUnless(!m_variant.cchMostObject || std::wcslen(wszObject) <= m_variant.cchMostObject);
  RefuseUnless(HasNoControlCharacter(CW2A(wszObject).m_psz));
  m_pFile.reset(
      m_pConnection->OpenRequest(m_variant.nVerb, wszObject, nullptr, 1, nullptr, nullptr, m_variant.dwFlags));
  if (m_variant.bSecurityOption && IsTestHost(wszHost)) {
    DWORD dwFlags = kSecurityOption;
    m_pFile->SetOption(INTERNET_OPTION_SECURITY_FLAGS, &dwFlags, sizeof dwFlags);
  }
  if (!m_variant.bForm || !szForm)
    return m_pFile->SendRequest();
  return m_pFile->SendRequest(kFormHeaders, static_cast<DWORD>(std::wcslen(kFormHeaders)), szForm,
                              static_cast<DWORD>(std::strlen(szForm)));
}

std::string ServiceExchange::ReadReply() {
  std::string strReply;
  if (m_variant.replySize == ReplySize::ContentLength) {
    CString strLength;
    m_pFile->QueryInfo(HTTP_QUERY_CONTENT_LENGTH, strLength);
    int const nLength = _wtoi(strLength);
    strReply = ReadUpTo(nLength > 0 ? static_cast<std::size_t>(nLength) : 0); // a negative length means no body
  } else if (m_variant.replySize == ReplySize::Available) {
    strReply = ReadAvailable();
  } else {
    std::size_t cbRead = 0;
    for (std::string strBlock; !(strBlock = ReadAvailable()).empty(); CheckLimit(cbRead += strBlock.size()))
      strReply += strBlock.c_str();
  }
  return strReply;
}

CComPtr<IXMLDOMDocument> ServiceExchange::ReadDocument() { return LoadReply(ReadReply()); }

// The bytes that are available when the first one has arrived; empty at the end of the reply.
std::string ServiceExchange::ReadAvailable() {
  auto const cb = static_cast<DWORD>(m_pFile->GetLength());
  if (cb == 0)
    ThrowIfBroken(); // GetLength returns 0 for a failure, too
  return ReadUpTo(cb);
}

// One read of `cb` bytes, done in blocks. Returns fewer only if the reply ends in order.
std::string ServiceExchange::ReadUpTo(std::size_t cb) {
  std::string strRead;
  while (strRead.size() < cb) {
    std::size_t const at = strRead.size();
    std::size_t const block = std::min(cb - at, kReadBlock);
    strRead.resize(at + block);
    UINT const uRead = m_pFile->Read(strRead.data() + at, static_cast<UINT>(block));
    strRead.resize(at + uRead);
    CheckLimit(strRead.size());
    if (uRead < block) {
      ThrowIfBroken();
      break;
    }
  }
  return strRead;
}

// A short read may hold what came before a loss, a time-out or a limit; in that case the next read throws.
void ServiceExchange::ThrowIfBroken() {
  char c = 0;
  m_pFile->Read(&c, sizeof c);
}

void ServiceExchange::CheckLimit(std::size_t cb) const {
  if (m_variant.cbMostReply && cb > m_variant.cbMostReply)
    throw new CInternetException(ERROR_HTTP_INVALID_SERVER_RESPONSE);
}

DWORD TraceAndDelete(CInternetException *pException, WCHAR const *wszOperation) {
  DWORD const dwError = pException->m_dwError;
  pException->Delete();
  TraceMsgW(L"[%s] Internet Exception! Error code: %d", wszOperation, dwError);
  return dwError;
}
