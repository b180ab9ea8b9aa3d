// Regular files by their name in bytes, for the platform's own use. Any thread; a descriptor belongs to one at a time.
// Knows nothing of handles.
#pragma once

#include <cstddef>
#include <utility>

#include <sys/types.h>
#include <unistd.h>

/// A file descriptor that closes itself.
class UniqueFd {
public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : m_fd(fd) {}
  UniqueFd(UniqueFd &&other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
  UniqueFd &operator=(UniqueFd &&other) noexcept {
    std::swap(m_fd, other.m_fd);
    return *this;
  }
  ~UniqueFd() {
    if (m_fd >= 0)
      close(m_fd);
  }
  int Get() const { return m_fd; }
  explicit operator bool() const { return m_fd >= 0; }

private:
  int m_fd = -1;
};

/// Opens a regular file for reading and never waits for a FIFO's writer. Returns: empty, with errno, on failure; EISDIR
/// for anything but a regular file.
UniqueFd OpenRegularFile(char const *path);

/// Reads until the buffer is full or the file ends. Returns: bytes read, or -1 with errno.
ssize_t ReadFully(int fd, void *buffer, std::size_t size);
