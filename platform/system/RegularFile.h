// Regular files by their name in bytes, for the platform's own use. Any thread. Knows nothing of handles.
#pragma once

#include "platform/system/UniqueFd.h"

#include <cstddef>

#include <sys/types.h>

/// Opens a regular file for reading and never waits for a FIFO's writer. Returns: empty, with errno, on failure; EISDIR
/// for anything but a regular file.
UniqueFd OpenRegularFile(char const *path);

/// Reads until the buffer is full or the file ends. Returns: bytes read, or -1 with errno.
ssize_t ReadFully(int fd, void *buffer, std::size_t size);
