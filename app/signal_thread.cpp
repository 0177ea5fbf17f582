#include "app/signal_thread.h"

#include <pthread.h>
#include <signal.h>

#include <system_error>

namespace {

sigset_t handled_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGUSR1, SIGUSR2})
    sigaddset(&signals, signal);
  return signals;
}

}  // namespace

void Signal_thread::block_signals() {
  const sigset_t signals = handled_signals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

Signal_thread::Signal_thread(Handler handler) {
  const sigset_t signals = handled_signals();
  constexpr timespec no_wait{};
  for (int signal = 0; (signal = sigtimedwait(&signals, nullptr, &no_wait)) > 0;)
    handler(signal);

  try {
    thread_ = std::thread([this, handler, signals] {
      for (;;) {
        int signal = 0;
        if (sigwait(&signals, &signal) != 0) continue;
        if (ending_) return;
        handler(signal);
      }
    });
  } catch (const std::system_error& error) {
    throw std::system_error(error.code(), "cannot start a thread for signals");
  }
}

Signal_thread::~Signal_thread() {
  ending_ = true;
  pthread_kill(thread_.native_handle(), SIGUSR1);
  thread_.join();
}
