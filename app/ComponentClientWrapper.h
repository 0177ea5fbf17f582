/// Follows the component states requested by state management.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>

#include "ara/log/logger.h"
#include "ara/stm/component_client.h"
#include "persistency/Persistency.h"

/// Allows storing while the application is on and forbids it once it is prepared for shutdown.
///
/// "kPrepSD" asks the prepare callback. If it reports that the owner is ready, the request ends at
/// once. Otherwise a preparation continues on a thread of its own. It asks again every second and
/// after each controlled save of the persistency; without a callback such a save is enough. The
/// preparation ends when the callback agrees, at the latest after 5 s. A request for any other
/// state ends a preparation, whose request then gets no confirmation of its own.
class ComponentClientWrapper {
 public:
  /// Returns true if the owner is ready for shutdown. Called under the lock of the requests, which
  /// also serialises the access to the persistency: the callback may store, but neither make a
  /// request nor wait for one. An exception is logged and counts as not ready.
  using Prepare_callback = std::function<bool()>;

  /// Connects to state management, whose requests may arrive from now on. `persistency` is not
  /// owned and must outlive this object; its owner callback belongs to this object.
  ComponentClientWrapper(Persistency* persistency, Prepare_callback prepare);
  /// Waits for a preparation (up to 5 s) and for a request under way.
  ~ComponentClientWrapper();
  ComponentClientWrapper(const ComponentClientWrapper&) = delete;
  ComponentClientWrapper& operator=(const ComponentClientWrapper&) = delete;

  /// Requests "kPrepSD", or any other name for "kOn". Confirmed to state management with 0
  /// (accepted) or 1 (a preparation is already running, or no thread is available for it). Any
  /// thread may call.
  void componentStateChangeRequest(const std::string& newState, std::uint32_t seqNum);

 private:
  enum class State : std::uint32_t { on = 0, transition_pending = 1, prepared_for_shutdown = 2 };

  using Clock = std::chrono::steady_clock;

  static constexpr std::chrono::seconds wait_limit{5};
  static constexpr std::chrono::seconds ask_period{1};

  void switch_on(std::uint32_t seqNum, const std::string& newState);
  void finish_preparation(std::uint32_t seqNum);
  void start_preparation(std::uint32_t seqNum);
  void prepare();
  [[nodiscard]] bool is_owner_ready();
  [[nodiscard]] std::uint64_t wakes();
  [[nodiscard]] std::uint64_t wait_for_wake(std::uint64_t seen, Clock::time_point time);
  void wake_preparation();
  void wait_for_preparation();
  void confirm(std::uint32_t seqNum, const std::string& newState, std::uint32_t result);

  std::unique_ptr<ara::stm::ComponentClient> client_;  ///< guarded by mutex_
  ara::log::Logger& logger_;
  State state_ = State::on;  ///< guarded by mutex_
  /// Guards the state, every request to its end, and the data of the preparation. Unlike any other
  /// lock here it is held while the prepare callback, a log call and a confirmation run. The
  /// reasons: the persistency has no lock of its own, and state management must see switches and
  /// confirmations in the order of the decisions. None of the three calls back here: the callback
  /// must not, a log call calls no other component, and a confirmation neither waits nor calls the
  /// handler.
  std::mutex mutex_;
  Persistency* persistency_;
  Prepare_callback prepare_callback_;
  std::future<void> preparation_;  ///< guarded by mutex_

  // Guarded by mutex_: the request behind the running preparation. A running preparation continues
  // with the newest request, so that no request has to wait for its end.
  bool preparing_ = false;
  std::uint32_t prepared_seq_num_ = 0;
  Clock::time_point deadline_;
  std::uint64_t seen_wakes_ = 0;  ///< those of wakes_ for which the request no longer waits

  /// Guards wakes_. Separate from mutex_, because a prepare callback that stores locks this one
  /// under mutex_.
  std::mutex wake_mutex_;
  std::condition_variable wake_;
  /// A count instead of a flag, so that a wake for a new request reaches a thread that still waits
  /// for an old one.
  std::uint64_t wakes_ = 0;
};
