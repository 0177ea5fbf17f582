/// The clients' subscription to an event or field of their proxy.
#pragma once

#include <cstddef>
#include <utility>

namespace clients {

/// Number of notifications that may wait for the receive handler. A middleware that calls the
/// handler for each notification never has more than one waiting, and makes slots only when needed.
/// The other slots are room for bursts on a middleware that does not.
inline constexpr std::size_t max_waiting_samples = 16;

/// Subscribes to `event`, a member of a proxy, and calls `handle(value)` for each notification, in
/// order. After the destruction of the proxy no call follows.
template <class Event, class Handle>
void subscribe(Event& event, Handle handle) {
  event.SetReceiveHandler([&event, handle = std::move(handle)] {
    event.GetNewSamples([&](const auto& sample) { handle(*sample); });
  });
  event.Subscribe(max_waiting_samples);
}

}  // namespace clients
