// The table between handles and objects: a handle is a number that is never used again, so a stale one is an error and
// not a dangling pointer. Any thread. Knows nothing of what the objects are.
#pragma once

#include "platform/base/Fork.h"
#include "platform/base/Types.h"

#include <memory>
#include <mutex>
#include <unordered_map>

template <class Object> class HandleTable {
public:
  /// The first handle's value; the others follow in steps of 4.
  explicit HandleTable(std::uintptr_t first) : m_next(first) {}

  /// Returns: the new handle. May throw std::bad_alloc.
  void *Add(std::shared_ptr<Object> object) {
    NoForkScope const scope;
    std::lock_guard<std::mutex> const lock(m_mutex);
    std::uintptr_t const handle = m_next;
    m_objects.emplace(handle, std::move(object));
    m_next += 4;
    return reinterpret_cast<void *>(handle);
  }
  /// Null for a handle that is not in the table, or no longer is.
  std::shared_ptr<Object> Find(void const *handle) const {
    NoForkScope const scope;
    std::lock_guard<std::mutex> const lock(m_mutex);
    auto const it = m_objects.find(reinterpret_cast<std::uintptr_t>(handle));
    return it == m_objects.end() ? nullptr : it->second;
  }
  /// Takes the object out; null if another call was first.
  std::shared_ptr<Object> Remove(void const *handle) {
    NoForkScope const scope;
    std::lock_guard<std::mutex> const lock(m_mutex);
    auto const it = m_objects.find(reinterpret_cast<std::uintptr_t>(handle));
    if (it == m_objects.end())
      return nullptr;
    std::shared_ptr<Object> object = std::move(it->second);
    m_objects.erase(it);
    return object;
  }

private:
  mutable std::mutex m_mutex;
  std::unordered_map<std::uintptr_t, std::shared_ptr<Object>> m_objects;
  std::uintptr_t m_next;
};
