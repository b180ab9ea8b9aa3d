#include "platform/system/Detached.h"

#include <exception>
#include <thread>
#include <utility>

#include <csignal>

namespace {

/// Blocks signals in the threads that are created in its scope, which inherit the mask.
class SignalsBlocked {
public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    for (int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT})
      sigdelset(&all, fault);
    pthread_sigmask(SIG_SETMASK, &all, &m_before);
  }
  SignalsBlocked(SignalsBlocked const &) = delete;
  SignalsBlocked &operator=(SignalsBlocked const &) = delete;
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }

private:
  sigset_t m_before;
};

} // namespace

bool StartDetached(std::function<void()> run) try {
  SignalsBlocked const blocked;
  std::thread(std::move(run)).detach();
  return true;
} catch (std::exception const &) { // of the thread's start, or out of memory
  return false;
}
