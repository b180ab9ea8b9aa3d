// Fails one chosen allocation. Its malloc and operator new are preloaded into an interpreter. Thread: any.
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <new>

extern "C" void *__libc_calloc(std::size_t count, std::size_t size);
extern "C" void *__libc_realloc(void *block, std::size_t size);
extern "C" void __libc_free(void *block);

namespace {

enum : unsigned { kOnlyNew = 1, kNextThread = 2 }; // of the next thread that starts, not of the calling one
struct Plan {
  int left; // allocations that still succeed; negative: all
  unsigned which;
};
// The default model would allocate at a thread's first access.
[[gnu::tls_model("initial-exec")]] thread_local Plan t_plan{-1, 0};
[[gnu::tls_model("initial-exec")]] thread_local bool t_hasBegun = false;
Plan g_next{-1, 0};
std::atomic<bool> g_isNextPlanned = false, g_hasFailed = false;
std::atomic<long> g_live = 0;

bool Fails(bool isNew) {
  if (!t_hasBegun && g_isNextPlanned.exchange(false))
    t_plan = g_next;
  t_hasBegun = true;
  if (t_plan.left < 0 || ((t_plan.which & kOnlyNew) && !isNew) || t_plan.left-- > 0)
    return false;
  g_hasFailed = true;
  errno = ENOMEM;
  return true;
}

void *Counted(void *block) {
  g_live += block != nullptr;
  return block;
}

} // namespace

#pragma GCC visibility push(default)
extern "C" {
/// Makes the nth allocation from now on fail, counted from 0: of any, or of those of C++.
void FailAllocation(int n, unsigned which) {
  g_hasFailed = false;
  ((which & kNextThread) ? g_next : t_plan) = {n, which};
  g_isNextPlanned = (which & kNextThread) != 0;
}
/// Makes no allocation of the calling thread fail any longer. Returns: 1 if one has failed since FailAllocation, else
/// 0.
int EndFailing() {
  t_plan.left = -1;
  g_isNextPlanned = false;
  return g_hasFailed;
}
/// How many blocks the process has.
long LiveBlocks() { return g_live; }

void *malloc(std::size_t size) { return Fails(false) ? nullptr : Counted(__libc_realloc(nullptr, size)); }
void *calloc(std::size_t count, std::size_t size) {
  return Fails(false) ? nullptr : Counted(__libc_calloc(count, size));
}
void *realloc(void *block, std::size_t size) {
  void *const changed = Fails(false) ? nullptr : __libc_realloc(block, size);
  g_live += block ? -(!changed && size == 0) : changed != nullptr; // a size of 0 frees
  return changed;
}
void free(void *block) {
  g_live -= block != nullptr;
  __libc_free(block);
}
}

void *operator new(std::size_t size) {
  void *const block = Fails(true) ? nullptr : Counted(__libc_realloc(nullptr, size));
  return block ? block : throw std::bad_alloc();
}
#pragma GCC visibility pop
