/// A communication runtime without a network: payloads go in by notify() and what is published is
/// counted.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "tq/com/runtime.h"

/// While one lives it is the process's runtime. Its one provider offers every consumed service as
/// instance 1.
class Quiet_runtime final : public tq::com::Runtime {
 public:
  Quiet_runtime();
  ~Quiet_runtime() override;

  /// Instance 1 of the service that was searched last is offered.
  void find();
  void notify(const std::string& element, tq::com::Payload payload) {
    handlers_.at(element)(payload);
  }
  [[nodiscard]] std::uint64_t published() const { return published_; }
  [[nodiscard]] std::uint64_t published_bytes() const { return published_bytes_; }

  tq::com::Find_token start_find_service(std::string_view service,
                                         std::optional<std::uint16_t> instance,
                                         tq::com::Find_handler handler) override;
  void stop_find_service(tq::com::Find_token) override {}
  std::unique_ptr<tq::com::Consumer> connect(const tq::com::Found_instance& instance) override;
  std::unique_ptr<tq::com::Provider> provide(std::string_view service,
                                             std::string_view specifier) override;
  std::vector<std::pair<std::string_view, std::uint64_t>> counters() const override { return {}; }

 private:
  class Consumer;
  class Provider;

  std::string searched_;
  tq::com::Find_handler find_handler_;
  std::map<std::string, tq::com::Notification_handler, std::less<>> handlers_;
  std::uint64_t published_ = 0;
  std::uint64_t published_bytes_ = 0;
};
