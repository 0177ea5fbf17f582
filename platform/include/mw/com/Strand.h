/// A strand runs the work given to it one piece at a time and in order, on whichever thread is at
/// hand.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

namespace mw::com {

/// Work is handed over in two steps, so that a receiver can fix the order of two datagrams before
/// it lets another thread receive the next one, and still run the first handler itself without a
/// hop: enqueue() under the receiver's own order, run() afterwards.
class Strand {
 public:
  Strand() = default;
  /// Same as close().
  ~Strand();
  Strand(const Strand&) = delete;
  Strand& operator=(const Strand&) = delete;

  /// Appends `work`. Returns true when the strand was free: the caller now owns it and must call
  /// run() (soon, from any one thread). Returns false when another thread is running the strand and
  /// will take the work along, or when the strand is closed and the work was dropped.
  [[nodiscard]] bool enqueue(std::function<void()> work);

  /// Runs queued work until none is left. Only after an enqueue() that returned true.
  void run();

  /// Takes a free strand and puts nothing into it: the caller must call run_claimed(). False when
  /// the strand is busy or closed.
  [[nodiscard]] bool claim();

  /// Runs `first`, which is never stored, and then queued work until none is left. Only after a
  /// claim() that returned true. `first` is left out when the strand has been closed since.
  template <class Work>
  void run_claimed(Work&& first) {
    if (begin()) std::forward<Work>(first)();
    run_queue();
  }

  /// Drops what is queued and everything that comes later, and waits until the running piece has
  /// ended (not waited for when called from within that piece).
  void close();

  [[nodiscard]] bool running_in_this_thread() const;

 private:
  enum State : unsigned {
    idle = 0,
    owned = 1,    ///< somebody runs the strand or is about to
    running = 2,  ///< the owner has begun
    queued = 4,   ///< there may be work in the queue
    closed = 8,
  };
  /// False when the strand was closed before.
  [[nodiscard]] bool begin();
  void run_queue();

  /// In one word, so that work which finds the strand free needs no lock: claim() takes it from
  /// `idle` and the end brings it back there, in one step each. Whoever wants more of the owner
  /// (queued work, close()) sets a bit; the step at the end then fails and the owner looks under
  /// the mutex.
  std::atomic<unsigned> state_{idle};
  std::atomic<std::thread::id>
      runner_;        ///< the last one; relaxed: a thread only asks whether it is itself
  std::mutex mutex_;  ///< guards queue_ and the end of a run that somebody may wait for
  std::condition_variable finished_;
  std::deque<std::function<void()>> queue_;
};

}  // namespace mw::com
