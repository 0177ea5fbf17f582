/// tq::com::Provider over SOME/IP: one instance of the node.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/com/gate.h"
#include "platform/someip/node/node.h"
#include "tq/com/runtime.h"

namespace tq::com {

class Someip_provider final : public Provider {
 public:
  /// The references outlive the provider. Throws std::runtime_error naming the key when a port of
  /// the instance is taken.
  Someip_provider(const someip::Service_deployment& service,
                  const someip::Instance_deployment& instance,
                  someip::Node& node,
                  std::string manifest);
  ~Someip_provider() override;
  Someip_provider(const Someip_provider&) = delete;
  Someip_provider& operator=(const Someip_provider&) = delete;

  [[nodiscard]] std::uint16_t instance() const override { return instance_->deployment().id; }
  [[nodiscard]] Element_ids element(std::string_view name) const override;
  void set_method_handler(std::uint16_t method, Method_handler handler) override;
  void offer() override;
  void stop_offer() override;
  void close() override;
  void notify(std::uint16_t notifier, Payload value) override;
  [[nodiscard]] std::optional<std::vector<std::byte>> field_value(
      std::uint16_t notifier) const override;

 private:
  [[nodiscard]] someip::Event_channel& channel(std::uint16_t event) const;

  const std::shared_ptr<someip::Provided_instance> instance_;
  someip::Node& node_;
  const std::string manifest_;
  const std::shared_ptr<Gate> gate_;  ///< of method handlers; shared with requests that still wait
};

}  // namespace tq::com
