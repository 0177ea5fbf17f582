/// A strand runs its work one piece at a time and in order, on any thread that is available.
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

/// A queue of work that one thread at a time runs. A caller hands work over in two steps: enqueue()
/// under the caller's own order, then run(). So a receiving thread fixes the place of its datagram
/// before another thread receives the next one. It still runs the handler itself, without a hop.
class Strand {
 public:
  Strand() = default;
  /// Same as close().
  ~Strand();
  Strand(const Strand&) = delete;
  Strand& operator=(const Strand&) = delete;

  /// Appends `work`. Returns true if the strand was free: the caller then owns it and must call
  /// run() (soon, from any one thread). Returns false if another thread runs the strand and will
  /// take the work along, or if the strand is closed and the work was dropped.
  [[nodiscard]] bool enqueue(std::function<void()> work);

  /// Runs queued work until the queue is empty. Call it only after an enqueue() that returned true.
  void run();

  /// Claims a free strand without queueing work: the caller must call run_claimed(). Returns false
  /// if the strand is busy or closed.
  [[nodiscard]] bool claim();

  /// Runs `first`, which is never stored, and then queued work until the queue is empty. Call it
  /// only after a claim() that returned true. Skips `first` if the strand has been closed since.
  template <class Work>
  void run_claimed(Work&& first) {
    if (begin()) std::forward<Work>(first)();
    run_queue();
  }

  /// Drops the queued work and all later work, and waits until the running piece has ended (does
  /// not wait if called from within that piece).
  void close();

  [[nodiscard]] bool running_in_this_thread() const;

 private:
  enum State : unsigned {
    idle = 0,
    owned = 1,    ///< a thread runs the strand or is about to
    running = 2,  ///< the owner has begun
    queued = 4,   ///< there may be work in the queue
    closed = 8,
  };
  /// Returns false if the strand was already closed.
  [[nodiscard]] bool begin();
  void run_queue();

  /// The state is one word, so that work for an idle strand needs no lock. claim() takes it from
  /// `idle` and the end of the run sets it back, with one atomic operation each. A thread
  /// that wants more of the owner (queued work, close()) sets a bit. The operation at the end then
  /// fails and the owner looks under the mutex.
  std::atomic<unsigned> state_{idle};
  std::atomic<std::thread::id>
      runner_;        ///< the last runner; relaxed: a thread only compares it with itself
  std::mutex mutex_;  ///< guards queue_ and the end of a run, for which close() may wait
  std::condition_variable finished_;
  std::deque<std::function<void()>> queue_;
};

}  // namespace mw::com
