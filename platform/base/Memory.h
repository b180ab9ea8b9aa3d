// Wiping memory. Thread: any.
#pragma once

#include <cstddef>
#include <string.h> // explicit_bzero is not in <cstring>'s std

/// Fills memory with zeros, also where the compiler sees that nothing reads it afterwards. Returns: `pMemory`. Cannot
/// fail.
inline void *SecureZeroMemory(void *pMemory, std::size_t cb) {
  explicit_bzero(pMemory, cb);
  return pMemory;
}
