/// How the clients take samples from an event or field of their proxy.
#pragma once

#include <cstddef>
#include <utility>

namespace clients {

/// Notifications that may wait for the receive handler. Where the middleware calls it for each one,
/// there is never more than one, and slots are made when they are needed; the rest is room for
/// bursts on a middleware that does not.
inline constexpr std::size_t max_waiting_samples = 16;

/// Subscribes to `event`, a member of a proxy, and calls `handle(value)` for each notification, in
/// order. It is not called any more once the proxy is destroyed.
template <class Event, class Handle>
void subscribe(Event& event, Handle handle) {
  event.SetReceiveHandler([&event, handle = std::move(handle)] {
    event.GetNewSamples([&](const auto& sample) { handle(*sample); });
  });
  event.Subscribe(max_waiting_samples);
}

}  // namespace clients
