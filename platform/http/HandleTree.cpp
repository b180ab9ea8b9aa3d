#include "platform/http/HandleTree.h"

#include "platform/base/Fork.h"
#include "platform/base/HandleTable.h"
#include "platform/base/LastError.h"

namespace {

HandleTable<HandleEntry> &Table() {
  static auto &table = *new HandleTable<HandleEntry>(0x00CC0004); // never destroyed: a thread may still run at exit
  return table;
}

} // namespace

HandleEntry::HandleEntry(std::shared_ptr<HandleEntry> parentOfEntry)
    : process(CurrentProcess()), parent(std::move(parentOfEntry)) {}

DWORD AddHandle(std::shared_ptr<HandleEntry> const &entry, HINTERNET &handle) {
  if (!entry->parent) {
    handle = Table().Add(entry);
    return ERROR_SUCCESS;
  }
  HandleEntry &parent = *entry->parent;
  std::lock_guard<std::mutex> const lock(parent.mutex);
  if (parent.isClosed)
    return ERROR_INTERNET_OPERATION_CANCELLED;
  parent.children.reserve(parent.children.size() + 1);
  handle = Table().Add(entry);
  parent.children.push_back(handle);
  return ERROR_SUCCESS;
}

std::shared_ptr<HandleEntry> FindHandle(HINTERNET handle) {
  std::shared_ptr<HandleEntry> entry = Table().Find(handle);
  return entry && entry->process == CurrentProcess() ? entry : nullptr;
}

bool CloseHandleTree(HINTERNET handle) {
  std::shared_ptr<HandleEntry> const entry = Table().Remove(handle);
  if (!entry)
    return false;
  if (entry->process != CurrentProcess())
    return true; // the parent process goes on with it
  std::vector<HINTERNET> children;
  {
    std::lock_guard<std::mutex> const lock(entry->mutex);
    entry->isClosed = true;
    children.swap(entry->children);
  }
  entry->Abort();
  for (HINTERNET const child : children)
    CloseHandleTree(child);
  if (entry->parent) {
    std::lock_guard<std::mutex> const lock(entry->parent->mutex);
    std::erase(entry->parent->children, handle);
  }
  return true;
}
