/// What every client of a required service does alike: search, connect to the first instance
/// offered, run the owner's set-up step on each new connection.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "ara/com/types.h"
#include "ara/log/logger.h"

/// `Proxy` is the proxy class of the service. init() and stop() come from one thread at a time,
/// and neither from a receive handler of the proxy.
///
/// Searching → connected on the first search result with an instance; connected → unavailable when
/// a result is empty (the proxy stays, but receives nothing); every other result with an instance
/// gives a fresh proxy and fresh subscriptions.
template <class Proxy>
class GeneralClientImpl {
 public:
  /// Logs to the owner's context.
  explicit GeneralClientImpl(const ara::log::Logger& logger) : logger_{logger} {}
  ~GeneralClientImpl() { stop(); }
  GeneralClientImpl(const GeneralClientImpl&) = delete;
  GeneralClientImpl& operator=(const GeneralClientImpl&) = delete;

  /// Told when the service goes and comes, on a worker. Set before init().
  void setAvailabilityCallback(std::function<void(bool available)> callback) {
    on_availability_ = std::move(callback);
  }

  /// Starts the search for any instance and returns at once. `set_up(proxy)` runs on a worker after
  /// each connection, to subscribe; the subscriptions of the connection before have ended by then,
  /// so that no handler of theirs runs beside a new one. Throws what the search throws when the
  /// service is not deployed. A second call starts over.
  template <class Set_up>
  void init(Set_up&& set_up) {
    stop();
    set_up_ = std::forward<Set_up>(set_up);
    search_ = Proxy::StartFindService(
        [this](const auto& handles, ara::com::FindServiceHandle) { on_search_result(handles); });
  }

  /// Ends search and subscriptions. Waits for handlers that run; none runs afterwards.
  void stop() {
    if (!search_) return;
    Proxy::StopFindService(*search_);
    search_.reset();
    available_ = false;
    replace_proxy(nullptr);
  }

  /// Whether the last search result held an instance.
  [[nodiscard]] bool isAvailable() const { return available_; }

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
    // Ends the previous proxy, which waits for its handlers: not under the lock.
    proxy.reset();
  }

  const ara::log::Logger& logger_;
  std::function<void(bool)> on_availability_;
  std::function<void(Proxy&)> set_up_;
  std::optional<ara::com::FindServiceHandle> search_;
  std::atomic<bool> available_{false};
  std::mutex mutex_;  ///< guards proxy_
  /// Shared with the search handler, whose set-up step may be using it when stop() is called from
  /// within that step.
  std::shared_ptr<Proxy> proxy_;
};
