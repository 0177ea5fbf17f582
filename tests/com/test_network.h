/// A small network of runtimes in one process, each on a loopback address of
/// its own, and a place where handlers leave what they saw.
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

/// For what nobody signals, such as counters: asked again and again until it is
/// true or time is over.
[[nodiscard]] inline bool eventually(const std::function<bool()>& condition,
                                     std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

/// The manifest of a network on 127.`net`.0.x: nodes "server" and "client"; a
/// service "test::Service" with a method "echo", an event "tick" and a field
/// "value"; timing short enough for tests.
inline someip::Deployment deployment(int net, const std::string& limits = "{}") {
  std::string text = R"({
    "nodes": {
      "server": {"address": "127.NET.0.1", "clientId": 1, "requestTimeoutMs": 500},
      "client": {"address": "127.NET.0.3", "clientId": 3, "requestTimeoutMs": 500}},
    "serviceDiscovery": {
      "multicastAddress": "239.255.NET.1", "port": 30490,
      "initialDelayMinMs": 1, "initialDelayMaxMs": 5, "repetitionsBaseDelayMs": 10,
      "repetitionsMax": 3, "cyclicOfferDelayMs": 100, "requestResponseDelayMinMs": 0,
      "requestResponseDelayMaxMs": 5, "offerTtlS": 1, "subscribeTtlS": 1},
    "limits": LIMITS,
    "services": {
      "test::Service": {"id": "0x1111", "majorVersion": 1, "minorVersion": 2,
        "methods": {"echo": {"id": 1}},
        "events": {"tick": {"id": "0x8001", "eventGroup": 1}},
        "fields": {"value": {"getter": 3, "setter": 4, "notifier": "0x8002", "eventGroup": 2}},
        "instances": [{"id": 1, "specifier": "first", "node": "server", "udpPort": 31001},
                      {"id": 2, "specifier": "second", "node": "client", "udpPort": 31001}]}}})";
  const auto replace = [&](std::string_view what, const std::string& with) {
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at))
      text.replace(at, what.size(), with);
  };
  replace("NET", std::to_string(net));
  replace("LIMITS", limits);
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

  /// The latest result, once it has `count` instances; fails with an empty one
  /// when that does not happen.
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
