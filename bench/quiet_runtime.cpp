#include "bench/quiet_runtime.h"

namespace {

/// Enough for a bench: every element is a field with the same ids.
constexpr tq::com::Element_ids ids{.method = 1, .getter = 1, .setter = {}, .notifier = 0x8001};

}  // namespace

class Quiet_runtime::Consumer final : public Played_runtime::Consumer {
 public:
  explicit Consumer(Quiet_runtime& runtime) : runtime_{runtime} {}
  tq::com::Element_ids element(std::string_view) const override { return ids; }
  void subscribe(std::string_view element,
                 tq::com::Notification_handler handler,
                 tq::com::Subscription_state_handler on_state) override {
    runtime_.handlers_.insert_or_assign(std::string{element}, std::move(handler));
    on_state(true);
  }
  void unsubscribe(std::string_view) override {}

 private:
  Quiet_runtime& runtime_;
};

class Quiet_runtime::Provider final : public tq::com::Provider {
 public:
  explicit Provider(Quiet_runtime& runtime) : runtime_{runtime} {}
  std::uint16_t instance() const override { return 1; }
  tq::com::Element_ids element(std::string_view) const override { return ids; }
  void set_method_handler(std::uint16_t, tq::com::Method_handler) override {}
  void offer() override {}
  void stop_offer() override {}
  void close() override { stop_offer(); }
  void notify(std::uint16_t, tq::com::Payload value) override {
    ++runtime_.published_;
    runtime_.published_bytes_ += value.size();
  }
  std::optional<std::vector<std::byte>> field_value(std::uint16_t) const override { return {}; }

 private:
  Quiet_runtime& runtime_;
};

Quiet_runtime::Quiet_runtime() = default;
Quiet_runtime::~Quiet_runtime() = default;

std::unique_ptr<tq::com::Consumer> Quiet_runtime::connect(const tq::com::Found_instance&) {
  return std::make_unique<Consumer>(*this);
}
std::unique_ptr<tq::com::Provider> Quiet_runtime::provide(std::string_view, std::string_view) {
  return std::make_unique<Provider>(*this);
}
