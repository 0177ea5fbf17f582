#include "tests/support/fake_runtime.h"

#include <algorithm>

/// The same on both sides: made of the name.
tq::com::Element_ids Fake_runtime::ids_of(std::string_view element) {
  const auto number = static_cast<std::uint16_t>(std::hash<std::string_view>{}(element) % 0x7FFF);
  return {.method = static_cast<std::uint16_t>(1 + number),
          .getter = static_cast<std::uint16_t>(1 + number),
          .setter = {},
          .notifier = static_cast<std::uint16_t>(0x8001 + number)};
}

class Fake_runtime::Consumer final : public Played_runtime::Consumer {
 public:
  explicit Consumer(Fake_runtime& runtime) : runtime_{runtime} {}

  tq::com::Element_ids element(std::string_view name) const override { return ids_of(name); }
  void subscribe(std::string_view element,
                 tq::com::Notification_handler handler,
                 tq::com::Subscription_state_handler on_state) override {
    on_state(true);
    auto& place = runtime_.notifications_[std::string{element}];
    if (place) throw std::logic_error{"subscribed while the connection before still is"};
    place = std::move(handler);
  }
  void unsubscribe(std::string_view element) override {
    if (const auto work = std::exchange(runtime_.on_unsubscribe, nullptr)) work();
    runtime_.notifications_.erase(std::string{element});
  }

 private:
  Fake_runtime& runtime_;
};

class Fake_runtime::Provider : public tq::com::Provider {
 public:
  Provider(Fake_runtime& runtime, std::string_view specifier)
      : runtime_{runtime}, specifier_{specifier} {}
  ~Provider() override {
    Provider::close();
    const std::lock_guard lock{runtime_.mutex_};
    runtime_.instances_.erase(specifier_);
  }

  std::uint16_t instance() const override { return 1; }
  tq::com::Element_ids element(std::string_view name) const override { return ids_of(name); }
  void set_method_handler(std::uint16_t method, tq::com::Method_handler handler) override {
    const std::lock_guard lock{runtime_.mutex_};
    runtime_.instances_[specifier_].handlers[method] = std::move(handler);
  }
  void offer() override { set_offered(true); }
  void stop_offer() override { set_offered(false); }
  void close() override {
    if (const auto work = std::exchange(runtime_.on_close, nullptr)) work();
    set_offered(false);
    std::unique_lock lock{runtime_.mutex_};
    runtime_.idle_.wait(lock, [this] { return runtime_.instances_[specifier_].running == 0; });
  }
  void notify(std::uint16_t notifier, tq::com::Payload value) override {
    if (runtime_.on_send) runtime_.on_send();
    Bytes bytes(value.size());
    std::ranges::transform(value, bytes.begin(), std::to_integer<std::uint8_t>);
    const std::lock_guard lock{runtime_.mutex_};
    runtime_.updates_[notifier].emplace_back(value.begin(), value.end());
    auto& instance = runtime_.instances_[specifier_];
    if (instance.is_offered) instance.sent.push_back(std::move(bytes));
  }
  std::optional<std::vector<std::byte>> field_value(std::uint16_t notifier) const override {
    const std::lock_guard lock{runtime_.mutex_};
    const auto& updates = runtime_.updates_[notifier];
    return updates.empty() ? std::nullopt : std::optional{updates.back()};
  }

 private:
  void set_offered(bool offered) {
    const std::lock_guard lock{runtime_.mutex_};
    runtime_.instances_[specifier_].is_offered = offered;
  }

  Fake_runtime& runtime_;
  const std::string specifier_;
};

std::vector<std::string> Fake_runtime::offered() const {
  const std::lock_guard lock{mutex_};
  std::vector<std::string> names;
  for (const auto& [specifier, instance] : instances_) {
    if (instance.is_offered) names.push_back(specifier);
  }
  return names;
}

tq::com::Response Fake_runtime::call(std::string_view specifier,
                                     const std::string& element,
                                     const Bytes& arguments) {
  Instance* instance = nullptr;
  tq::com::Method_handler handler;
  {
    const std::lock_guard lock{mutex_};
    instance = &instances_.find(specifier)->second;
    handler = instance->handlers.at(*ids_of(element).method);
    ++instance->running;
  }
  auto response = handler(std::as_bytes(std::span{arguments}));
  const std::lock_guard lock{mutex_};
  --instance->running;
  idle_.notify_all();
  return response;
}

std::vector<Fake_runtime::Bytes> Fake_runtime::sent(std::string_view specifier) const {
  const std::lock_guard lock{mutex_};
  const auto found = instances_.find(specifier);
  return found == instances_.end() ? std::vector<Bytes>{} : found->second.sent;
}

std::unique_ptr<tq::com::Consumer> Fake_runtime::connect(const tq::com::Found_instance&) {
  return std::make_unique<Consumer>(*this);
}
std::unique_ptr<tq::com::Provider> Fake_runtime::provide(std::string_view,
                                                         std::string_view specifier) {
  if (specifier == "Unknown") throw std::runtime_error{"no such instance"};
  return std::make_unique<Provider>(*this, specifier);
}
