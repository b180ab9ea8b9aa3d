// The reply of one exchange as it comes in: status, declared length, and the body bytes that the caller has not taken
// yet. Runs on the thread that makes the call. It knows nothing of the connection.
#pragma once

#include "platform/base/Types.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

class HttpReply {
public:
  /// Takes one header line of libcurl's, which knows the status of the head that the line belongs to. Returns: an error
  /// number, 0 for none. May throw std::bad_alloc.
  DWORD TakeHeader(std::string_view line, long status);
  /// Ends the head; for a reply whose head libcurl does not take to its end.
  void EndHead(long status) { m_status = status, m_isHeadIn = true; }
  /// Takes body bytes. Returns: an error number, 0 for none. May throw std::bad_alloc.
  DWORD TakeBody(std::string_view data);
  /// Moves at most `size` body bytes out. Returns: how many.
  std::size_t Read(char *buffer, std::size_t size);

  bool IsHeadIn() const { return m_isHeadIn; }
  /// True once as many body bytes have come as were declared.
  bool IsBodyIn() const { return m_length.value && m_bodySize >= *m_length.value; }
  /// Valid once the head is in.
  long Status() const { return m_status; }
  /// The header's text; empty without such a header.
  std::string const &ContentLength() const { return m_length.text; }
  /// Bytes of header lines, those of interim replies included.
  std::size_t HeadSize() const { return m_headSize; }
  /// Bytes that have come, headers included.
  std::uint64_t Received() const { return m_headSize + m_bodySize; }
  /// Body bytes that Read can give.
  std::size_t Buffered() const { return m_body.size() - m_taken; }

private:
  /// A line of a head, by its place.
  enum class Line { Status, FirstHeader, Header };
  struct Length {
    std::string text;
    std::optional<std::uint64_t> value; ///< empty for text that does not begin with a number
    bool isTooLarge = false;            ///< a number over 63 bits
  };
  static Length ParseLength(std::string_view text);

  long m_status = 0;
  bool m_isHeadIn = false;
  Line m_next = Line::Status; ///< what the next line is
  std::size_t m_headSize = 0;
  Length m_length;
  std::string m_body;
  std::size_t m_taken = 0; ///< bytes of m_body that the caller has
  std::uint64_t m_bodySize = 0;
};
