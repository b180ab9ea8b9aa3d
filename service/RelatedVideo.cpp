// Registers a video under the member's token: the first exchange obtains a video id, the second sends the video's data
// and receives an address. Holds the GIL throughout.
#include "service/KHLoginData.h"

#include "service/JoinText.h"
#include "service/ServiceExchange.h"
#include "trace/Trace.h"

#include <new>

namespace {

constexpr WCHAR kDefaultResult[] = L" ";
constexpr WCHAR kObjectStart[] = L"/servlet/setRelateVideo?tokenid=";

} // namespace

PyObject *KHLoginData::SetRelateVideo(WCHAR const *wszVideoURL, WCHAR const *wszWebsite,
                                      WCHAR const *wszVideoInfo) try {
  if (!wszVideoURL || !wszWebsite || !wszVideoInfo) {
    TraceMsgW(L"SetRelateVideo wszVideoURL|wszWebsite|wszVideoInfo fail");
    return NewText(kDefaultResult);
  }
  CString const strToken = CopyLoginTokenID();
  if (strToken.IsEmpty()) {
    TraceMsgW(L"SetRelateVideo GetTokenID fail");
    return NewText(kDefaultResult);
  }
  CString strVideoID;
  GetVideoID(strVideoID);
  if (strVideoID.IsEmpty()) {
    TraceMsgW(L"SetRelateVideo GetVideoID fail");
    return NewText(kDefaultResult);
  }
  CString strAnswer(kDefaultResult);
  bool bEmpty = false;
  RunExchange(RequestKind::RelatedVideo, [&](ServiceExchange &exchange) {
    EnsureKHServerURL();
    exchange.Send(m_strKHServerUrl,
                  JoinText({kObjectStart, strToken, L"&videoID=", strVideoID, L"&videoURL=", wszVideoURL, L"&website=",
                            wszWebsite, L"&AP=TWR&Version=", m_strProdVersion, L"&versionType=", m_strVersionType,
                            L"&uuid=", m_strUUID, L"&", wszVideoInfo}));
    std::string strReply = exchange.ReadReply();
    bEmpty = strReply.empty();
    if (!bEmpty)
      ReadElement(LoadReply(std::move(strReply)), L"info/videoUrl", strAnswer);
  });
  return bEmpty ? nullptr : NewText(strAnswer); // null without a Python error: the interpreter raises SystemError
} catch (std::bad_alloc const &) {
  return NewText(kDefaultResult);
}

void KHLoginData::GetVideoID(CString &strVideoID) {
  CString const strToken = CopyLoginTokenID();
  RunExchange(RequestKind::VideoId, [&](ServiceExchange &exchange) {
    EnsureKHServerURL();
    exchange.Send(m_strKHServerUrl, JoinText({kObjectStart, strToken, L"&AP=TWR&Version=", m_strProdVersion,
                                              L"&versionType=", m_strVersionType, L"&uuid=", m_strUUID}));
    if (std::string strReply = exchange.ReadReply(); !strReply.empty())
      ReadElement(LoadReply(std::move(strReply)), L"info/videoId", strVideoID);
  });
}
