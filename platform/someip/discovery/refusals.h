/// The clients whose subscriptions a node has refused.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "platform/someip/discovery/discovery_types.h"

namespace someip {

/// A subscription that was refused, with its repetitions.
struct Refusal {
  Instance_key key;  ///< as the client named it
  std::uint16_t event_group = 0;
  Origin from;
  Instance_endpoints endpoints;
  std::string_view cause;  ///< of the last one; a literal
  Time first, last;
  std::uint64_t count = 0;
};

/// Holds the refusals that no acceptance has followed, the most recent ones.
class Refusals {
 public:
  /// The refusal with those of the same client for the same group before it: its count is 1 if
  /// there is none. Valid until the next call.
  const Refusal& note(const Instance_key& key,
                      std::uint16_t event_group,
                      const Origin& from,
                      const Instance_endpoints& endpoints,
                      std::string_view cause,
                      Time now);
  /// The client has been accepted. Returns how often it was refused before.
  std::uint64_t forget(const Instance_key& key, std::uint16_t event_group, const Origin& from);
  [[nodiscard]] const std::vector<Refusal>& all() const { return all_; }

 private:
  /// Peers decide how many they cause, and each one is compared with all of them.
  static constexpr std::size_t most = 32;

  [[nodiscard]] std::vector<Refusal>::iterator find(const Instance_key& key,
                                                    std::uint16_t event_group,
                                                    const Origin& from);

  std::vector<Refusal> all_;  ///< at most `most`
};

}  // namespace someip
