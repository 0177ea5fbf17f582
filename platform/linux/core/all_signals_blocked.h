/// Signal mask of the platform's own threads, which must never handle a signal.
#pragma once

#include <pthread.h>

#include <csignal>

namespace ara::core {

/// During its life the calling thread blocks every signal. Each thread started meanwhile blocks
/// them for good.
class AllSignalsBlocked {
 public:
  AllSignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~AllSignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  AllSignalsBlocked(const AllSignalsBlocked&) = delete;
  AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;

 private:
  sigset_t before_{};
};

}  // namespace ara::core
