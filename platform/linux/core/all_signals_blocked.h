/// Signal mask of the platform's own threads, which must never handle a signal.
#pragma once

#include <pthread.h>

#include <csignal>

namespace ara::core {

/// During its life the calling thread blocks every signal. Each thread started meanwhile blocks
/// them for good.
class All_signals_blocked {
 public:
  All_signals_blocked() {
    sigset_t all;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~All_signals_blocked() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  All_signals_blocked(const All_signals_blocked&) = delete;
  All_signals_blocked& operator=(const All_signals_blocked&) = delete;

 private:
  sigset_t before_{};
};

}  // namespace ara::core
