// Tells the service of a video under the member's token: one exchange obtains a video id, a second hands over the video
// and receives an address. The interpreter lock is held throughout.
#include "service/KHLoginData.h"

#include "service/ServiceExchange.h"
#include "shell/Trace.h"

#include <new>

namespace {

constexpr WCHAR kServlet[] = L"/servlet/setRelateVideo";

struct Pair {
  WCHAR const *wszKey;
  WCHAR const *wszValue;
};

CString &Append(CString &strObject, std::initializer_list<Pair> pairs) {
  for (Pair const &pair : pairs) {
    strObject += pair.wszKey;
    strObject += pair.wszValue;
  }
  return strObject;
}

} // namespace

PyObject *KHLoginData::SetRelateVideo(WCHAR const *wszVideoURL, WCHAR const *wszWebsite, WCHAR const *wszVideoInfo) {
  if (!wszVideoURL || !wszWebsite || !wszVideoInfo) {
    TraceMsgW(L"SetRelateVideo wszVideoURL|wszWebsite|wszVideoInfo fail");
    return NewText(L" ");
  }
  try {
    CString const strToken = CopyLoginTokenID();
    if (strToken.IsEmpty()) {
      TraceMsgW(L"SetRelateVideo GetTokenID fail");
      return NewText(L" ");
    }
    CString strVideoID;
    GetVideoID(strVideoID);
    if (strVideoID.IsEmpty()) {
      TraceMsgW(L"SetRelateVideo GetVideoID fail");
      return NewText(L" ");
    }
    CString strAnswer(L" ");
    bool bEmpty = false;
    RunExchange(RequestKind::RelatedVideo, [&](ServiceExchange &exchange) {
      EnsureKHServerURL();
      CString strObject(kServlet);
      Append(strObject, {{L"?tokenid=", strToken},
                         {L"&videoID=", strVideoID},
                         {L"&videoURL=", wszVideoURL},
                         {L"&website=", wszWebsite},
                         {L"&AP=TWR&Version=", m_strProdVersion},
                         {L"&versionType=", m_strVersionType},
                         {L"&uuid=", m_strUUID},
                         {L"&", wszVideoInfo}});
      exchange.Send(m_strKHServerUrl, strObject); // the reply tells whether it was sent
      std::string strReply = exchange.ReadReply();
      bEmpty = strReply.empty();
      if (!bEmpty)
        ReadElement(LoadReply(std::move(strReply)), L"info/videoUrl", strAnswer);
    });
    return bEmpty ? nullptr : NewText(strAnswer); // null without a Python error: the interpreter raises SystemError
  } catch (std::bad_alloc const &) {
    return NewText(L" ");
  }
}

void KHLoginData::GetVideoID(CString &strVideoID) {
  CString const strToken = CopyLoginTokenID();
  RunExchange(RequestKind::VideoId, [&](ServiceExchange &exchange) {
    EnsureKHServerURL();
    CString strObject(kServlet);
    Append(strObject, {{L"?tokenid=", strToken},
                       {L"&AP=TWR&Version=", m_strProdVersion},
                       {L"&versionType=", m_strVersionType},
                       {L"&uuid=", m_strUUID}});
    exchange.Send(m_strKHServerUrl, strObject); // as above
    if (std::string strReply = exchange.ReadReply(); !strReply.empty())
      ReadElement(LoadReply(std::move(strReply)), L"info/videoId", strVideoID);
  });
}
