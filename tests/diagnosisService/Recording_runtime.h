/// A network node without a network: what is offered and sent is kept, and requests are handed to
/// the handlers as bytes. Stands in for the platform's runtime where a test is about the service
/// behind it.
#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "tq/com/runtime.h"

using Bytes = std::vector<std::uint8_t>;

class Recording_runtime : public tq::com::Runtime {
 public:
  /// While it lives it is the process's runtime.
  Recording_runtime();
  ~Recording_runtime() override;

  tq::com::Find_token start_find_service(std::string_view,
                                         std::optional<std::uint16_t>,
                                         tq::com::Find_handler) override;
  void stop_find_service(tq::com::Find_token) override;
  std::unique_ptr<tq::com::Consumer> connect(const tq::com::Found_instance&) override;
  std::unique_ptr<tq::com::Provider> provide(std::string_view service,
                                             std::string_view specifier) override;
  std::vector<std::pair<std::string_view, std::uint64_t>> counters() const override { return {}; }

  /// Calls a method of a provided instance; `specifier` must be known.
  [[nodiscard]] tq::com::Response call(std::string_view specifier,
                                       std::string_view method,
                                       const Bytes& arguments);
  [[nodiscard]] std::vector<std::string> offered() const;
  /// Payloads of the events that an instance sent while it was offered.
  [[nodiscard]] std::vector<Bytes> sent(std::string_view specifier) const;

  /// Called within each sending, on the sender's thread. Set it before there are senders.
  std::function<void()> on_send;

 private:
  class Provider;
  struct Instance {
    std::map<std::uint16_t, tq::com::Method_handler> handlers;
    std::vector<Bytes> sent;
    bool is_offered = false;
    std::size_t running = 0;  ///< calls in progress
  };

  mutable std::mutex mutex_;  ///< guards instances_
  std::condition_variable idle_;
  std::map<std::string, Instance, std::less<>> instances_;
};
