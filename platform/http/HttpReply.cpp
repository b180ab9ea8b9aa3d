#include "platform/http/HttpReply.h"

#include "platform/base/LastError.h"
#include "platform/http/HttpRequest.h"
#include "platform/http/HttpText.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace {

/// Whether the line is a status line with a version, as in "HTTP/1.1 200". libcurl takes "HTTP/x" or "Http/1.1 404" for
/// a status of 200.
bool IsStatusLine(std::string_view line) {
  constexpr std::string_view kStart = "HTTP/";
  std::string_view const version = Trimmed(line.substr(std::min(kStart.size(), line.size())));
  return line.starts_with(kStart) && !version.empty() && version.front() >= '0' && version.front() <= '9';
}

} // namespace

HttpReply::Length HttpReply::ParseLength(std::string_view text) {
  std::int64_t number = 0;
  char const *const end = text.data() + text.size();
  auto const [stop, error] = std::from_chars(text.data(), end, number);
  Length length{std::string(text), std::nullopt, stop == end && error == std::errc::result_out_of_range};
  if (error == std::errc() && !text.starts_with('-'))
    length.value = static_cast<std::uint64_t>(number);
  return length;
}

DWORD HttpReply::TakeHeader(std::string_view line, long status) {
  m_headSize += line.size();
  if (m_headSize > kReplyHeadLimit)
    return ERROR_HTTP_INVALID_SERVER_RESPONSE;
  if (m_isHeadIn) // a trailer
    return ERROR_SUCCESS;
  Line const kind = std::exchange(m_next, Line::Header);
  bool const isBlank = line.starts_with(' ') || line.starts_with('\t');
  if (kind == Line::FirstHeader && isBlank) // continues nothing; libcurl refuses it in some versions only
    return ERROR_HTTP_INVALID_SERVER_RESPONSE;
  if (kind == Line::Status) {
    m_next = Line::FirstHeader;
    m_length = {}; // what came before was an interim reply
    return IsStatusLine(line) ? ERROR_SUCCESS : ERROR_HTTP_INVALID_SERVER_RESPONSE;
  }
  if (IsSameName(HeaderName(line), "Content-Length")) {
    m_length = ParseLength(Trimmed(line.substr(line.find(':') + 1)));
  } else if (line.starts_with('\r') || line.starts_with('\n')) { // for libcurl, too, whatever follows
    m_status = status;
    m_isHeadIn = status >= 200 || status == 101;
    m_next = Line::Status;
    if (m_isHeadIn && m_length.isTooLarge)
      return ERROR_HTTP_INVALID_SERVER_RESPONSE; // a reply whose body can't be read
  }
  return ERROR_SUCCESS;
}

DWORD HttpReply::TakeBody(std::string_view data) {
  m_bodySize += data.size();
  if (m_bodySize > kReplyBodyLimit)
    return ERROR_HTTP_INVALID_SERVER_RESPONSE;
  m_body.append(data);
  return ERROR_SUCCESS;
}

std::size_t HttpReply::Read(char *buffer, std::size_t size) {
  std::size_t const read = m_body.copy(buffer, size, m_taken);
  m_taken += read;
  if (Buffered() == 0) {
    std::string().swap(m_body); // frees its memory: the caller parses the document before it closes the handles
    m_taken = 0;
  }
  return read;
}
