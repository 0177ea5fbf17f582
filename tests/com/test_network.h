/// A small network of runtimes in one process, each on a loopback address of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/com/make_runtime.h"
#include "platform/linux/com/manifest.h"
#include "tests/support/network.h"
#include "tests/support/seen.h"
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

inline void replace(std::string& text, std::string_view from, const std::string& to) {
  for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
}

/// The manifest of a network on the addresses of test::network(): nodes "server" and "client"; a
/// service "test::Service" with a method "echo", an event "tick" and a field "value"; timing short
/// enough for tests.
inline someip::Deployment deployment(const std::string& limits = "{}") {
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
  replace(text, "NET", std::to_string(network()));
  replace(text, "LIMITS", limits);
  return tq::com::parse_deployment(text, "test manifest");
}

inline std::uint64_t counter(const tq::com::Runtime& runtime, std::string_view name) {
  for (const auto& [known, value] : runtime.counters()) {
    if (known == name) return value;
  }
  throw std::logic_error("no counter " + std::string(name));
}

/// What a subscription gets; outlives the network.
struct Subscription {
  /// Waits until it is acknowledged.
  void start(
      tq::com::Consumer& consumer,
      const std::string& element,
      const std::function<void(const std::string&)>& then = [](const auto&) {}) {
    consumer.subscribe(
        element,
        [this, then](tq::com::Payload payload) {
          received.add(text(payload));
          then(text(payload));
        },
        [this](bool active) { states.add(active); });
    if (!states.wait_for(true)) throw std::runtime_error("no acknowledgement came");
  }
  Seen<std::string> received;
  Seen<bool> states;
};

/// Searches for a service while it lives.
class Finder {
 public:
  Finder(tq::com::Runtime& runtime, std::string_view service)
      : runtime_(runtime),
        token_(runtime.start_find_service(
            service, std::nullopt, [this](const std::vector<tq::com::Found_instance>& found) {
              if (!found.empty()) found_.add(found.front());
            })) {}
  ~Finder() { runtime_.stop_find_service(token_); }
  Finder(const Finder&) = delete;
  Finder& operator=(const Finder&) = delete;

  /// Connected to the first instance that was found; throws when none comes.
  [[nodiscard]] std::unique_ptr<tq::com::Consumer> connect() const {
    if (!found_.wait_count(1)) throw std::runtime_error("no instance was found");
    return runtime_.connect(found_.all().front());
  }

 private:
  Seen<tq::com::Found_instance> found_;
  tq::com::Runtime& runtime_;
  tq::com::Find_token token_;
};

}  // namespace test
