// Regular files by their name in bytes, for the platform's own use.
#pragma once

#include "platform/system/UniqueFd.h"

#include <cstddef>

#include <sys/types.h>

/// Opens a regular file for reading, without ever waiting for a FIFO's writer. Empty, with errno, on failure; EISDIR
/// for whatever is no regular file.
UniqueFd OpenRegularFile(char const *szPath);

/// Reads until the buffer is full or the file ends. Returns: bytes read, or -1 with errno.
ssize_t ReadFully(int fd, void *pBuffer, std::size_t cb);
