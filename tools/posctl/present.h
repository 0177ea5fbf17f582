/// The present instance of a service, for programs that look at the application for long.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "ara/com/types.h"

namespace posctl {

/// Follows the first offered instance from one offer to the next.
template <class Proxy>
class Present {
 public:
  Present() {
    search_ = Proxy::StartFindService([this](const auto& handles, auto) {
      const std::lock_guard lock(mutex_);
      changed_ = true;
      handle_.reset();
      if (!handles.empty()) handle_.emplace(handles.front());
    });
  }
  ~Present() { Proxy::StopFindService(search_); }
  Present(const Present&) = delete;
  Present& operator=(const Present&) = delete;

  /// Replaces the proxy if the offer has changed, and returns whether it did. One thread calls.
  bool update() {
    std::optional<Handle> handle;
    {
      const std::lock_guard lock(mutex_);
      if (!std::exchange(changed_, false)) return false;
      handle = handle_;
    }
    proxy_.reset();
    if (handle) proxy_ = std::make_unique<Proxy>(*handle);
    return true;
  }
  /// Null if the service is not offered.
  [[nodiscard]] Proxy* proxy() { return proxy_.get(); }

 private:
  using Handle = typename Proxy::Handle_type;

  std::mutex mutex_;  ///< guards the two members below
  std::optional<Handle> handle_;
  bool changed_ = false;
  std::unique_ptr<Proxy> proxy_;  ///< of the thread that calls update()
  ara::com::FindServiceHandle search_{};
};

}  // namespace posctl
