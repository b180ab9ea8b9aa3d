#include "platform/system/RegularFile.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

UniqueFd OpenRegularFile(char const *path) {
  UniqueFd fd;
  do
    fd = UniqueFd(open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  while (!fd && errno == EINTR);
  struct stat status;
  if (!fd || fstat(fd.Get(), &status) != 0)
    return {};
  if (S_ISREG(status.st_mode))
    return fd;
  errno = EISDIR;
  return {};
}

ssize_t ReadFully(int fd, void *buffer, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    ssize_t const count = read(fd, static_cast<char *>(buffer) + done, size - done);
    if (count == 0)
      break;
    if (count > 0)
      done += static_cast<std::size_t>(count);
    else if (errno != EINTR)
      return -1;
  }
  return static_cast<ssize_t>(done);
}
