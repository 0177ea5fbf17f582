/// A communication runtime without a network: payloads go in by notify() and what is published is
/// counted.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "tests/support/played_runtime.h"

class Quiet_runtime final : public Played_runtime {
 public:
  // Not inline: they would change what else the compiler inlines, and with it what is counted.
  Quiet_runtime();
  ~Quiet_runtime() override;

  void notify(const std::string& element, tq::com::Payload payload) {
    handlers_.at(element)(payload);
  }
  [[nodiscard]] std::uint64_t published() const { return published_; }
  [[nodiscard]] std::uint64_t published_bytes() const { return published_bytes_; }

  std::unique_ptr<tq::com::Consumer> connect(const tq::com::Found_instance& instance) override;
  std::unique_ptr<tq::com::Provider> provide(std::string_view service,
                                             std::string_view specifier) override;

 private:
  class Consumer;
  class Provider;

  std::map<std::string, tq::com::Notification_handler, std::less<>> handlers_;
  std::uint64_t published_ = 0;
  std::uint64_t published_bytes_ = 0;
};
