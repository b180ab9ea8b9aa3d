// Preloaded, it makes the kernel look as if net.core.wmem_max were 212,992, its default, for a process's send buffers.
#include <algorithm>
#include <cstring>

#include <dlfcn.h>
#include <sys/socket.h>

extern "C" int setsockopt(int fd, int level, int name, void const *value, socklen_t size) noexcept {
  static auto const next = reinterpret_cast<decltype(&setsockopt)>(dlsym(RTLD_NEXT, "setsockopt"));
  int capped = 0;
  if (level != SOL_SOCKET || name != SO_SNDBUF || size != sizeof capped)
    return next(fd, level, name, value, size);
  std::memcpy(&capped, value, sizeof capped);
  capped = std::min(capped, 212'992);
  return next(fd, level, name, &capped, sizeof capped);
}
