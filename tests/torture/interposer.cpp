// Preloaded by scripts/torture: stands in front of the allocator, fails one chosen allocation of ours, and counts what
// is alive of ours. An allocation is ours if it is made on a thread that Python did not start, or if the module or the
// platform library called for it with no Python code in between. Allocations are told apart by their call stacks, as
// offsets in the libraries, so a stack has the same number in every process of a build. Thread: any.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <utility>

#include <dlfcn.h>
#include <link.h>
#include <sys/mman.h>
#include <unwind.h>

extern "C" {
void *__libc_malloc(std::size_t size);
void *__libc_calloc(std::size_t count, std::size_t size);
void *__libc_realloc(void *block, std::size_t size);
void *__libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void *block);
}

namespace {

constexpr std::uint32_t kMostFrames = 96;
constexpr std::uint32_t kSiteFrames = 8; // how many of the innermost frames make a place
constexpr std::uint32_t kMostStacks = 1 << 15;
constexpr std::size_t kMostBlocks = 1 << 17;

struct Stack {
  std::uint64_t hash;  // 0: unused
  std::uint64_t first; // of the innermost frame alone
  std::uint64_t site;
  std::uint32_t distance; // from the allocation to the innermost frame of ours; 0: there is none
  std::uint32_t depth;
  std::uintptr_t frames[kMostFrames];
};

/// What tests/torture/worker.py reads and writes. A case is a forked process, and shares this with its parent.
struct Torture {
  std::uint64_t target;              // the stack whose nth allocation is to fail
  std::uint64_t first;               // of its innermost frame; other allocations are then not looked at; 0: all are
  std::uint64_t fired;               // the stack whose allocation failed; 0: none yet
  std::atomic<std::int64_t> balance; // allocations of the process, less what was freed
  std::atomic<std::uint32_t> nth;
  std::atomic<std::uint32_t> isArmed;    // to count stacks, and to fail one
  std::atomic<std::uint32_t> isTracking; // blocks that are alive
  std::uint32_t seen[kMostStacks];
  std::int32_t alive[kMostStacks]; // blocks, by the stack that allocated them
  Stack stacks[kMostStacks];
  Stack crash; // depth 0: none
};

struct Block {
  void const *address;
  std::uint32_t stack;
};

void const *const kFreed = &kMostBlocks;

Torture *g_torture = nullptr;
Block g_blocks[kMostBlocks];
std::mutex g_mutex;            // guards the tables
std::uintptr_t g_evaluate = 0; // where the interpreter's evaluation of Python code begins
link_map const *g_self = nullptr;
// The default model would allocate at a thread's first access.
[[gnu::tls_model("initial-exec")]] thread_local bool t_isBusy = false;
[[gnu::tls_model("initial-exec")]] thread_local bool t_isPythons = false;

struct Walk {
  Stack stack = {};
  bool isOurs = !t_isPythons;
  std::uint32_t limit = kMostFrames;
};

bool IsOurs(char const *library) {
  return std::strstr(library, "/_Skiffport.") || std::strstr(library, "/libskiffport_platform.");
}

// Allocates nothing and takes no lock, nor does the unwinder, which finds its tables through _dl_find_object.
_Unwind_Reason_Code VisitFrame(_Unwind_Context *context, void *argument) {
  auto &[stack, isOurs, limit] = *static_cast<Walk *>(argument);
  std::uintptr_t const address = _Unwind_GetIP(context);
  dl_find_object found;
  if (stack.depth == limit || _dl_find_object(reinterpret_cast<void *>(address), &found) != 0 ||
      _Unwind_GetRegionStart(context) == g_evaluate)
    return _URC_NORMAL_STOP;
  link_map const *const map = found.dlfo_link_map;
  if (map == g_self)
    return _URC_NO_REASON;
  stack.hash = (stack.hash ^ (address - map->l_addr)) * 0x9E3779B97F4A7C15U;
  stack.hash ^= stack.hash >> 29;
  stack.frames[stack.depth++] = address - 1; // inside the call, not after it
  if (stack.depth == 1) {
    stack.first = stack.hash;
    if (g_torture->first != 0 && g_torture->first != stack.hash && !g_torture->isTracking)
      return _URC_NORMAL_STOP;
  }
  if (stack.depth <= kSiteFrames)
    stack.site = stack.hash;
  if (stack.distance == 0 && IsOurs(map->l_name)) {
    isOurs = true;
    stack.distance = stack.depth;
  }
  return _URC_NO_REASON;
}

// The index of the stack, which is added if it is new; kMostStacks if the table is full.
std::uint32_t FindStack(Stack const &stack) {
  for (std::uint32_t tries = 0; tries < kMostStacks; ++tries) {
    std::uint32_t const index = (stack.hash + tries) % kMostStacks;
    if (g_torture->stacks[index].hash == 0)
      g_torture->stacks[index] = stack;
    if (g_torture->stacks[index].hash == stack.hash)
      return index;
  }
  return kMostStacks;
}

// The block's entry, or with an address of null the first that is free for it; null if there is none.
Block *FindBlock(void const *block, void const *address) {
  for (std::size_t tries = 0; tries < kMostBlocks; ++tries) {
    Block &entry = g_blocks[(reinterpret_cast<std::uintptr_t>(block) / 16 * 0x9E3779B1U + tries) % kMostBlocks];
    if (entry.address == address || (!address && entry.address == kFreed))
      return &entry;
    if (!entry.address)
      return nullptr;
  }
  return nullptr;
}

void AddBlock(void const *block, std::uint32_t stack) {
  if (!block || stack == kMostStacks || !g_torture->isTracking)
    return;
  std::lock_guard<std::mutex> const lock(g_mutex);
  if (Block *const entry = FindBlock(block, nullptr)) {
    *entry = {block, stack};
    ++g_torture->alive[stack];
  }
}

// Returns: the stack of a block that was tracked, else kMostStacks.
std::uint32_t RemoveBlock(void const *block) {
  if (!block || !g_torture || !g_torture->isTracking)
    return kMostStacks;
  std::lock_guard<std::mutex> const lock(g_mutex);
  Block *const entry = FindBlock(block, block);
  if (!entry)
    return kMostStacks;
  entry->address = kFreed;
  --g_torture->alive[entry->stack];
  return entry->stack;
}

// True if the allocation is to fail. `stack` becomes that of an allocation of ours, else kMostStacks.
bool Fails(std::uint32_t &stack) {
  stack = kMostStacks;
  if (!g_torture || !(g_torture->isArmed || g_torture->isTracking) || t_isBusy)
    return false;
  t_isBusy = true;
  Walk walk;
  if (walk.isOurs && !g_torture->isArmed)
    walk.limit = kSiteFrames; // faster, and enough to name the place
  _Unwind_Backtrace(VisitFrame, &walk);
  bool fails = false;
  if (walk.isOurs) {
    std::lock_guard<std::mutex> const lock(g_mutex);
    stack = FindStack(walk.stack);
    fails = g_torture->isArmed && stack != kMostStacks && ++g_torture->seen[stack] == g_torture->nth &&
            walk.stack.hash == g_torture->target && g_torture->fired == 0;
    if (fails) {
      g_torture->fired = walk.stack.hash;
      g_torture->isArmed = 0;
      errno = ENOMEM;
    }
  }
  t_isBusy = false;
  return fails;
}

template <class Allocation> void *Allocate(Allocation allocate) {
  std::uint32_t stack = kMostStacks;
  if (Fails(stack))
    return nullptr;
  void *const block = allocate();
  if (block && g_torture)
    ++g_torture->balance;
  AddBlock(block, stack);
  return block;
}

void RecordCrash(int) {
  t_isBusy = true;
  g_torture->first = 0;
  Walk walk;
  _Unwind_Backtrace(VisitFrame, &walk);
  g_torture->crash = walk.stack;
}

__attribute__((constructor)) void Prepare() {
  void *const memory = mmap(nullptr, sizeof(Torture), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED)
    return;
  g_evaluate = reinterpret_cast<std::uintptr_t>(dlsym(RTLD_DEFAULT, "_PyEval_EvalFrameDefault"));
  dl_find_object found;
  if (_dl_find_object(reinterpret_cast<void *>(&RecordCrash), &found) == 0)
    g_self = found.dlfo_link_map;
  t_isPythons = true;
  struct sigaction action = {};
  action.sa_handler = RecordCrash;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  for (int const number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT})
    sigaction(number, &action, nullptr);
  g_torture = static_cast<Torture *>(memory);
}

} // namespace

#define TORTURE_API extern "C" __attribute__((visibility("default")))

TORTURE_API Torture *torture_state() { return g_torture; }

TORTURE_API void *malloc(std::size_t size) {
  return Allocate([=] { return __libc_malloc(size); });
}
TORTURE_API void *calloc(std::size_t count, std::size_t size) {
  return Allocate([=] { return __libc_calloc(count, size); });
}
TORTURE_API void *aligned_alloc(std::size_t alignment, std::size_t size) {
  return Allocate([=] { return __libc_memalign(alignment, size); });
}
TORTURE_API int posix_memalign(void **block, std::size_t alignment, std::size_t size) {
  void *const memory = aligned_alloc(alignment, size);
  if (memory)
    *block = memory;
  return memory ? 0 : ENOMEM;
}
TORTURE_API void free(void *block) {
  RemoveBlock(block);
  if (block && g_torture)
    --g_torture->balance;
  __libc_free(block);
}
TORTURE_API void *realloc(void *block, std::size_t size) {
  std::uint32_t stack = kMostStacks;
  if (Fails(stack))
    return nullptr;
  // Before the call: once the old block is free, another thread may get it.
  std::uint32_t const old = RemoveBlock(block);
  void *const changed = __libc_realloc(block, size);
  if (g_torture)
    g_torture->balance += (changed && !block) - (block && !changed && size == 0);
  if (changed || size != 0)
    AddBlock(changed ? changed : block, changed ? stack : old);
  return changed;
}
