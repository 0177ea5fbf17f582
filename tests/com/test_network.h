/// A small network of runtimes in one process, each on a loopback address of its own, and a place
/// where handlers leave what they saw.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "platform/linux/com/make_runtime.h"
#include "platform/linux/com/manifest.h"
#include "tq/com/runtime.h"

namespace test {

using Bytes = std::vector<std::byte>;

inline Bytes bytes(std::string_view text) {
  const auto* begin = reinterpret_cast<const std::byte*>(text.data());
  return {begin, begin + text.size()};
}
inline std::string text(tq::com::Payload payload) {
  return {reinterpret_cast<const char*>(payload.data()), payload.size()};
}

/// What handlers saw, in order; a test waits for what it expects.
template <class Value>
class Seen {
 public:
  void add(Value value) {
    const std::lock_guard lock(mutex_);
    values_.push_back(std::move(value));
    changed_.notify_all();
  }
  [[nodiscard]] std::vector<Value> all() const {
    const std::lock_guard lock(mutex_);
    return values_;
  }
  /// False when the condition is not fulfilled in time.
  [[nodiscard]] bool wait(const std::function<bool(const std::vector<Value>&)>& condition,
                          std::chrono::milliseconds limit = std::chrono::seconds(10)) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return condition(values_); });
  }
  [[nodiscard]] bool wait_for(const Value& value) const {
    return wait([&](const auto& values) {
      return std::find(values.begin(), values.end(), value) != values.end();
    });
  }
  [[nodiscard]] bool wait_count(std::size_t count) const {
    return wait([&](const auto& values) { return values.size() >= count; });
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<Value> values_;
};

/// For what nobody signals, such as counters: asked again and again until it is true or time is
/// over.
[[nodiscard]] inline bool eventually(const std::function<bool()>& condition,
                                     std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

/// The manifest of a network on 127.`net`.0.x: nodes "server", "server2" and "client", "client2";
/// one service "test::Service" with a method "echo", a fire-and-forget method "poke", an event
/// "tick", fields "value" and "big"; the same over TCP as "test::Stream"; timing short enough for
/// tests.
inline someip::Deployment deployment(int net, const std::string& changes = "{}") {
  const std::string base = "127." + std::to_string(net) + ".0.";
  const std::string group = "239.255." + std::to_string(net) + ".1";
  const auto elements = [](const std::string& transport) {
    return R"("methods": {
        "echo": {"id": 1, "transport": ")" +
           transport + R"("},
        "poke": {"id": 2, "transport": ")" +
           transport + R"(", "fireAndForget": true}},
      "events": {"tick": {"id": "0x8001", "eventGroup": 1, "transport": ")" +
           transport + R"("}},
      "fields": {
        "value": {"getter": 3, "setter": 4, "notifier": "0x8002", "eventGroup": 2, "transport": ")" +
           transport + R"("},
        "big": {"getter": 5, "notifier": "0x8003", "eventGroup": 3, "transport": ")" +
           transport + R"("}})";
  };
  const std::string text = R"({
  "nodes": {
    "server": {"address": ")" +
                           base + R"(1", "clientId": 1, "requestTimeoutMs": 500},
    "server2": {"address": ")" +
                           base + R"(2", "clientId": 2, "requestTimeoutMs": 500},
    "client": {"address": ")" +
                           base + R"(3", "clientId": 3, "requestTimeoutMs": 500},
    "client2": {"address": ")" +
                           base + R"(4", "clientId": 4, "requestTimeoutMs": 500}
  },
  "serviceDiscovery": {
    "multicastAddress": ")" +
                           group + R"(", "port": 30490,
    "initialDelayMinMs": 1, "initialDelayMaxMs": 5, "repetitionsBaseDelayMs": 10, "repetitionsMax": 3,
    "cyclicOfferDelayMs": 100, "requestResponseDelayMinMs": 0, "requestResponseDelayMaxMs": 5,
    "offerTtlS": 1, "subscribeTtlS": 1
  },
  "limits": )" + changes + R"(,
  "services": {
    "test::Service": {"id": "0x1111", "majorVersion": 1, "minorVersion": 2, )" +
                           elements("udp") + R"(,
      "instances": [
        {"id": 1, "specifier": "first", "node": "server", "udpPort": 31001},
        {"id": 2, "specifier": "second", "node": "server", "udpPort": 31002},
        {"id": 3, "specifier": "third", "node": "server2", "udpPort": 31001}]},
    "test::Stream": {"id": "0x2222", "majorVersion": 1, "minorVersion": 0, )" +
                           elements("tcp") + R"(,
      "instances": [{"id": 1, "specifier": "stream", "node": "server", "tcpPort": 31003}]},
    "test::Group": {"id": "0x3333", "majorVersion": 1, "minorVersion": 0, )" +
                           elements("udp") + R"(,
      "instances": [{"id": 1, "specifier": "group", "node": "server", "udpPort": 31004,
        "multicast": [{"eventGroup": 1, "address": "239.255.)" +
                           std::to_string(net) +
                           R"(.2", "port": 31099, "threshold": 2}]}]}
  }})";
  return tq::com::parse_deployment(text, "test manifest");
}

inline std::uint64_t counter(const tq::com::Runtime& runtime, std::string_view name) {
  for (const auto& [known, value] : runtime.counters()) {
    if (known == name) return value;
  }
  throw std::logic_error("no counter " + std::string(name));
}

/// Searches for a service and keeps the latest result.
class Finder {
 public:
  Finder(tq::com::Runtime& runtime,
         std::string_view service,
         std::optional<std::uint16_t> instance = {})
      : runtime_(runtime),
        token_(runtime.start_find_service(
            service, instance, [this](const std::vector<tq::com::Found_instance>& found) {
              results.add(found);
            })) {}
  ~Finder() { runtime_.stop_find_service(token_); }
  Finder(const Finder&) = delete;
  Finder& operator=(const Finder&) = delete;

  /// The latest result, once it has `count` instances; fails with an empty one when that does not
  /// happen.
  [[nodiscard]] std::vector<tq::com::Found_instance> wait(std::size_t count) const {
    std::vector<tq::com::Found_instance> latest;
    static_cast<void>(results.wait([&](const auto& all) {
      if (all.empty() || all.back().size() != count) return false;
      latest = all.back();
      return true;
    }));
    return latest;
  }
  [[nodiscard]] bool wait_none() const {
    return results.wait([](const auto& all) { return !all.empty() && all.back().empty(); });
  }

  Seen<std::vector<tq::com::Found_instance>> results;

 private:
  tq::com::Runtime& runtime_;
  tq::com::Find_token token_;
};

}  // namespace test
