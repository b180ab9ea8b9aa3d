// Windows and message queues. Any thread. A queue belongs to the thread that created it, and closes with it; its
// windows keep it alive, so that what was queued can be taken out even then. A queue's descriptor is readable exactly
// while messages wait: each change of the queue updates it under the queue's lock, so a loop that runs inside a handler
// sees it. A forked child ignores the parent's windows and queues: their locks may be held by threads that do not exist
// there.
#include "platform/window/Messages.h"

#include "platform/base/HandleTable.h"
#include "platform/base/LastError.h"
#include "platform/base/Seam.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <deque>
#include <map>
#include <new>
#include <string>
#include <utility>

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

struct QueuedMessage {
  HWND hWnd;
  WPARAM wParam;
  LPARAM lParam;
  std::uint64_t number; // counts the posts to the queue
  UINT uMessage;
};

/// One thread's queue. Only its thread closes it; the mutex guards everything but the process.
struct Queue {
  pid_t const process = CurrentProcess();
  std::mutex mutex;
  std::deque<QueuedMessage> messages;
  std::uint64_t nextNumber = 0;
  int windowCount = 0;
  int fd = -1; // -1 once the thread has ended or released the queue
  bool isSignalled = false;

  bool IsOurs() const { return process == CurrentProcess(); }
  /// Makes the descriptor readable if messages wait, and unreadable if none do. The mutex is held.
  void UpdateDescriptor() {
    if (fd < 0 || isSignalled == !messages.empty())
      return;
    // An eventfd that is signalled can be read, and one that is not can be written; neither call can fail here.
    std::uint64_t count = 1;
    [[maybe_unused]] ssize_t const moved =
        isSignalled ? read(fd, &count, sizeof count) : write(fd, &count, sizeof count);
    isSignalled = !isSignalled;
  }
  void Close() {
    std::lock_guard<std::mutex> const lock(mutex);
    close(std::exchange(fd, -1));
  }
};

/// One window. The queue's mutex guards `isAlive`.
struct Window {
  Window(std::shared_ptr<Queue> itsQueue, WNDPROC procedure, LONG_PTR initialStyle)
      : queue(std::move(itsQueue)), windowProc(procedure), style(initialStyle) {}

  std::shared_ptr<Queue> const queue;
  WNDPROC const windowProc;
  std::atomic<LONG_PTR> style;
  std::atomic<LONG_PTR> userData = 0;
  bool isAlive = true;
};

HandleTable<Window> &Windows() {
  static auto &table = *new HandleTable<Window>(0x10010);
  return table;
}

struct ClassTable {
  std::mutex mutex;
  std::map<std::wstring, WNDPROC, std::less<>> classes;
};

ClassTable &Classes() {
  static auto &table = *new ClassTable;
  return table;
}

/// The calling thread's reference to its queue, which closes when the thread ends. Kept under a key, because the C
/// library ends the process if it has no memory to register a thread_local object's destructor.
class ThreadQueue {
public:
  /// Null if the thread has none, or only the parent's.
  std::shared_ptr<Queue> Ours() const {
    auto const *const held = Held();
    return held && (*held)->IsOurs() ? *held : nullptr;
  }
  bool IsParents() const { return Held() && !Ours(); }
  /// Creates the queue if there is none, or only the parent's. Null if it can't be created; may throw std::bad_alloc.
  std::shared_ptr<Queue> Require() {
    if (auto queue = Ours())
      return queue;
    pthread_key_t const *const key = Key();
    if (!key)
      return nullptr;
    auto reference = std::make_unique<Reference>(std::make_shared<Queue>());
    auto queue = *reference;
    queue->fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (queue->fd < 0)
      return nullptr;
    Reference const *const parents = Held();
    if (pthread_setspecific(*key, reference.get()) != 0) {
      queue->Close();
      throw std::bad_alloc();
    }
    static_cast<void>(reference.release()); // now the thread's
    delete parents;
    return queue;
  }
  /// Only for a thread that has one.
  void Drop() {
    CloseHeld(Held());
    pthread_setspecific(*Key(), nullptr);
  }

private:
  using Reference = std::shared_ptr<Queue>;

  static void CloseHeld(void *held) {
    std::unique_ptr<Reference> const reference(static_cast<Reference *>(held));
    if ((*reference)->IsOurs())
      (*reference)->Close();
  }
  /// Null if the process has used up its keys.
  static pthread_key_t const *Key() {
    static pthread_key_t s_key;
    static bool const s_isCreated = pthread_key_create(&s_key, CloseHeld) == 0;
    return s_isCreated ? &s_key : nullptr;
  }
  static Reference *Held() { return Key() ? static_cast<Reference *>(pthread_getspecific(*Key())) : nullptr; }
};

ThreadQueue g_threadQueue;

/// The window; null, with the last error, for any other handle and for a window of the parent process.
std::shared_ptr<Window> FindWindow(HWND hWnd) {
  auto window = Windows().Find(hWnd);
  return window && window->queue->IsOurs() ? window : Fail(ERROR_INVALID_WINDOW_HANDLE, nullptr);
}

/// Takes the next message off the queue if it was posted before number `end`.
bool TakeNext(Queue &queue, std::uint64_t end, QueuedMessage &message) {
  std::lock_guard<std::mutex> const lock(queue.mutex);
  if (queue.messages.empty() || queue.messages.front().number >= end)
    return false;
  message = queue.messages.front();
  queue.messages.pop_front();
  queue.UpdateDescriptor();
  return true;
}

/// The attribute that the index names; null for any other index.
std::atomic<LONG_PTR> *Attribute(Window &window, int index) {
  if (index == GWL_STYLE)
    return &window.style;
  return index == GWLP_USERDATA ? &window.userData : nullptr;
}

HWND CreateWindowOf(WCHAR const *className, DWORD style) {
  WNDPROC windowProc = nullptr;
  {
    NoForkScope const scope;
    std::lock_guard<std::mutex> const lock(Classes().mutex);
    auto const it = Classes().classes.find(std::wstring_view(className ? className : L""));
    if (it == Classes().classes.end())
      return Fail(ERROR_CANNOT_FIND_WND_CLASS, nullptr);
    windowProc = it->second;
  }
  auto const queue = g_threadQueue.Require();
  if (!queue)
    return Fail(ERROR_NOT_ENOUGH_MEMORY, nullptr);
  void *const hWnd = Windows().Add(std::make_shared<Window>(queue, windowProc, static_cast<LONG_PTR>(style)));
  std::lock_guard<std::mutex> const lock(queue->mutex);
  ++queue->windowCount;
  return static_cast<HWND>(hWnd);
}

} // namespace

ATOM RegisterClassExW(WNDCLASSEXW const *pClass) try {
  if (!pClass || pClass->cbSize != sizeof *pClass || !pClass->lpfnWndProc || !pClass->lpszClassName)
    return Fail(ERROR_INVALID_PARAMETER, ATOM{0});
  NoForkScope const scope;
  std::lock_guard<std::mutex> const lock(Classes().mutex);
  auto &classes = Classes().classes;
  if (!classes.emplace(pClass->lpszClassName, pClass->lpfnWndProc).second)
    return Fail(ERROR_CLASS_ALREADY_EXISTS, ATOM{0});
  return static_cast<ATOM>(0xC000 + classes.size());
} catch (std::bad_alloc const &) {
  return Fail(ERROR_NOT_ENOUGH_MEMORY, ATOM{0});
}

HWND CreateWindowExW(DWORD /*dwExStyle*/, WCHAR const *wszClass, WCHAR const * /*wszTitle*/, DWORD dwStyle, int /*x*/,
                     int /*y*/, int /*cx*/, int /*cy*/, HWND hParent, HMENU /*hMenu*/, void * /*hInstance*/,
                     void * /*pParam*/) try {
  if (hParent)
    return Fail(ERROR_INVALID_PARAMETER, nullptr);
  return CreateWindowOf(wszClass, dwStyle);
} catch (std::bad_alloc const &) {
  return Fail(ERROR_NOT_ENOUGH_MEMORY, nullptr);
}

BOOL DestroyWindow(HWND hWnd) {
  if (!FindWindow(hWnd))
    return FALSE;
  auto const window = Windows().Remove(hWnd);
  if (!window) // another thread was first
    return Fail(ERROR_INVALID_WINDOW_HANDLE, FALSE);
  Queue &queue = *window->queue;
  std::lock_guard<std::mutex> const lock(queue.mutex);
  window->isAlive = false;
  --queue.windowCount;
  std::erase_if(queue.messages, [hWnd](QueuedMessage const &message) { return message.hWnd == hWnd; });
  queue.UpdateDescriptor();
  return TRUE;
}

LRESULT DefWindowProcW(HWND /*hWnd*/, UINT /*uMessage*/, WPARAM /*wParam*/, LPARAM /*lParam*/) { return 0; }

LONG_PTR GetWindowLongPtrW(HWND hWnd, int nIndex) {
  auto const window = FindWindow(hWnd);
  if (!window)
    return 0;
  std::atomic<LONG_PTR> const *const attribute = Attribute(*window, nIndex);
  return attribute ? attribute->load() : Fail(ERROR_INVALID_PARAMETER, LONG_PTR{0});
}

LONG_PTR SetWindowLongPtrW(HWND hWnd, int nIndex, LONG_PTR nValue) {
  auto const window = FindWindow(hWnd);
  if (!window)
    return 0;
  std::atomic<LONG_PTR> *const attribute = Attribute(*window, nIndex);
  return attribute ? attribute->exchange(nValue) : Fail(ERROR_INVALID_PARAMETER, LONG_PTR{0});
}

HGDIOBJ GetStockObject(int nObject) {
  static char s_nullBrush; // a brush that paints nothing, for windows that nobody sees
  return nObject == NULL_BRUSH ? &s_nullBrush : nullptr;
}

BOOL PostMessageW(HWND hWnd, UINT uMessage, WPARAM wParam, LPARAM lParam) try {
  if (FaultAt(FaultPoint::PostMessageW))
    return FALSE;
  auto const window = FindWindow(hWnd);
  if (!window)
    return FALSE;
  Queue &queue = *window->queue;
  std::lock_guard<std::mutex> const lock(queue.mutex);
  if (!window->isAlive || queue.fd < 0)
    return Fail(ERROR_INVALID_WINDOW_HANDLE, FALSE);
  queue.messages.push_back({hWnd, wParam, lParam, queue.nextNumber, uMessage});
  ++queue.nextNumber;
  queue.UpdateDescriptor();
  return TRUE;
} catch (std::bad_alloc const &) {
  return Fail(ERROR_NOT_ENOUGH_MEMORY, FALSE);
}

BOOL PeekMessageW(MSG *pMessage, HWND hWnd, UINT uFirst, UINT uLast, UINT uRemove) {
  if (!pMessage || uRemove != PM_REMOVE)
    return Fail(ERROR_INVALID_PARAMETER, FALSE);
  auto const window = FindWindow(hWnd);
  if (!window)
    return FALSE;
  Queue &queue = *window->queue;
  std::lock_guard<std::mutex> const lock(queue.mutex);
  auto const it = std::find_if(queue.messages.begin(), queue.messages.end(), [&](QueuedMessage const &message) {
    return message.hWnd == hWnd && message.uMessage >= uFirst && message.uMessage <= uLast;
  });
  if (it == queue.messages.end())
    return FALSE;
  *pMessage = {it->hWnd, it->uMessage, it->wParam, it->lParam};
  queue.messages.erase(it);
  queue.UpdateDescriptor();
  return TRUE;
}

int MessageQueueDescriptor() try {
  auto const queue = g_threadQueue.Require();
  return queue ? queue->fd : -1;
} catch (std::bad_alloc const &) {
  return Fail(ERROR_NOT_ENOUGH_MEMORY, -1);
}

int PumpMessages(int nLimit) {
  auto const queue = g_threadQueue.Ours(); // a reference: a handler may release the thread's queue
  if (!queue)
    return 0;
  std::uint64_t end;
  {
    std::lock_guard<std::mutex> const lock(queue->mutex);
    end = queue->nextNumber;
  }
  int ranCount = 0;
  for (QueuedMessage message; ranCount < nLimit && TakeNext(*queue, end, message); ++ranCount)
    if (auto const window = Windows().Find(message.hWnd))
      window->windowProc(message.hWnd, message.uMessage, message.wParam, message.lParam);
  return ranCount;
}

int WaitForMessages(int nMilliseconds) {
  if (g_threadQueue.IsParents())
    return 0;
  pollfd entry = {MessageQueueDescriptor(), POLLIN, 0};
  if (entry.fd < 0)
    return 0;
  int const ready = poll(&entry, 1, nMilliseconds);
  return ready < 0 ? -1 : ready;
}

BOOL ReleaseMessageQueue() {
  auto const queue = g_threadQueue.Ours();
  if (!queue)
    return TRUE;
  {
    std::lock_guard<std::mutex> const lock(queue->mutex);
    if (queue->windowCount != 0)
      return FALSE;
  }
  g_threadQueue.Drop();
  return TRUE;
}
