/// The work shared by all clients of a required service: search, connect to the first offered
/// instance, run the owner's set-up step on each new connection.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "ara/com/types.h"
#include "ara/log/logger.h"

/// `Proxy` is the proxy class of the service. One thread at a time calls init() and stop(), and
/// never a receive handler of the proxy.
///
/// Searching → connected: on the first search result with an instance. Connected → unavailable: on
/// an empty result (the proxy stays, but receives nothing). Every other result with an instance
/// gives a fresh proxy and fresh subscriptions.
template <class Proxy>
class GeneralClientImpl {
 public:
  /// Logs to the owner's context.
  explicit GeneralClientImpl(const ara::log::Logger& logger) : logger_{logger} {}
  ~GeneralClientImpl() { stop(); }
  GeneralClientImpl(const GeneralClientImpl&) = delete;
  GeneralClientImpl& operator=(const GeneralClientImpl&) = delete;

  /// Called on a worker when the service becomes available or unavailable. Set it before init().
  void set_availability_callback(std::function<void(bool available)> callback) {
    on_availability_ = std::move(callback);
  }

  /// Starts the search for any instance and returns at once. `set_up(proxy)` runs on a worker after
  /// each connection, to subscribe. The subscriptions of the previous connection have ended by
  /// then, so no handler of theirs runs beside a new one. Throws the exception of the search if the
  /// service is not deployed. A second call starts over.
  template <class Set_up>
  void init(Set_up&& set_up) {
    stop();
    set_up_ = std::forward<Set_up>(set_up);
    search_ = Proxy::StartFindService(
        [this](const auto& handles, ara::com::FindServiceHandle) { on_search_result(handles); });
  }

  /// Ends search and subscriptions. Waits for running handlers; none runs afterwards.
  void stop() {
    if (!search_) return;
    Proxy::StopFindService(*search_);
    search_.reset();
    available_ = false;
    replace_proxy(nullptr);
  }

  /// True if the last search result held an instance.
  [[nodiscard]] bool is_available() const { return available_; }

 private:
  void on_search_result(
      const ara::com::ServiceHandleContainer<typename Proxy::Handle_type>& found) {
    for (const auto& handle : found) {
      logger_.LogInfo() << "generalClientImpl: Instance " << handle.GetInstanceId().ToString()
                        << " is available";
    }
    const bool available = !found.empty();
    if (available_.exchange(available) != available && on_availability_)
      on_availability_(available);
    if (found.empty()) return;

    const auto& first = found.front();
    const auto proxy = std::make_shared<Proxy>(first);
    replace_proxy(proxy);
    logger_.LogInfo() << "generalClientImpl: connected to instance "
                      << first.GetInstanceId().ToString();
    set_up_(*proxy);
  }

  void replace_proxy(std::shared_ptr<Proxy> proxy) {
    {
      const std::lock_guard lock{mutex_};
      proxy_.swap(proxy);
    }
    // Destroys the previous proxy, which waits for its handlers, so not under the lock.
    proxy.reset();
  }

  const ara::log::Logger& logger_;
  std::function<void(bool)> on_availability_;
  std::function<void(Proxy&)> set_up_;
  std::optional<ara::com::FindServiceHandle> search_;
  std::atomic<bool> available_{false};
  std::mutex mutex_;  ///< guards proxy_
  /// Shared with the search handler, whose set-up step may still use it when stop() is called from
  /// that step.
  std::shared_ptr<Proxy> proxy_;
};
