// See RegularFile.h.
#include "platform/system/RegularFile.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

UniqueFd OpenRegularFile(char const *szPath) {
  UniqueFd fd;
  do
    fd = UniqueFd(open(szPath, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  while (!fd && errno == EINTR);
  struct stat status;
  if (!fd || fstat(fd.Get(), &status) != 0)
    return {};
  if (S_ISREG(status.st_mode))
    return fd;
  errno = EISDIR;
  return {};
}

ssize_t ReadFully(int fd, void *pBuffer, std::size_t cb) {
  std::size_t cbDone = 0;
  while (cbDone < cb) {
    ssize_t const cbRead = read(fd, static_cast<char *>(pBuffer) + cbDone, cb - cbDone);
    if (cbRead == 0)
      break;
    if (cbRead > 0)
      cbDone += static_cast<std::size_t>(cbRead);
    else if (errno != EINTR)
      return -1;
  }
  return static_cast<ssize_t>(cbDone);
}
