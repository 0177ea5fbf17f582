/// For the platform's own threads, on which no signal may ever be handled.
#pragma once

#include <pthread.h>

#include <csignal>

namespace ara::core {

/// While it lives, the calling thread blocks every signal, and so does each thread that it starts,
/// for good.
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
