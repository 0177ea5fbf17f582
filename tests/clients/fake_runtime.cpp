#include "tests/clients/fake_runtime.h"

#include <algorithm>

namespace {
Fake_runtime* the_runtime = nullptr;

/// Ids of an element, the same on both sides: its number in order of first mention.
std::vector<std::string>& element_names() {
  static std::vector<std::string> names;
  return names;
}
tq::com::Element_ids ids_of(std::string_view name) {
  auto& names = element_names();
  auto place = std::find(names.begin(), names.end(), name);
  if (place == names.end()) place = names.insert(names.end(), std::string{name});
  const auto number = static_cast<std::uint16_t>(place - names.begin());
  return {.method = {},
          .getter = static_cast<std::uint16_t>(1 + number),
          .setter = {},
          .notifier = static_cast<std::uint16_t>(0x8001 + number)};
}
const std::string& name_of(std::uint16_t notifier) {
  return element_names().at(notifier - std::size_t{0x8001});
}
}  // namespace

namespace tq::com {
Runtime& Runtime::instance() {
  if (the_runtime == nullptr) throw std::logic_error{"the test has no runtime"};
  return *the_runtime;
}
}  // namespace tq::com

class Fake_runtime::Consumer : public tq::com::Consumer {
 public:
  explicit Consumer(Fake_runtime& runtime) : runtime_{runtime} {}
  ~Consumer() override = default;

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
    runtime_.notifications_.erase(std::string{element});
  }
  void call(std::uint16_t, tq::com::Payload, tq::com::Response_handler handler) override {
    handler(tq::com::Return_code::not_reachable, {});
  }
  void call_no_return(std::uint16_t, tq::com::Payload) override {}

 private:
  Fake_runtime& runtime_;
};

class Fake_runtime::Provider : public tq::com::Provider {
 public:
  Provider(Fake_runtime& runtime, std::string_view service)
      : runtime_{runtime}, service_{service} {}

  std::string_view service() const override { return service_; }
  std::uint16_t instance() const override { return 1; }
  tq::com::Element_ids element(std::string_view name) const override { return ids_of(name); }
  void set_method_handler(std::uint16_t, tq::com::Method_handler) override {}
  void offer() override { runtime_.offered_ = true; }
  void stop_offer() override { runtime_.offered_ = false; }
  void close() override { stop_offer(); }
  void update_field(std::uint16_t notifier, tq::com::Payload value) override {
    runtime_.updates_[name_of(notifier)].emplace_back(value.begin(), value.end());
  }
  void send_event(std::uint16_t, tq::com::Payload) override {}

 private:
  Fake_runtime& runtime_;
  const std::string service_;
};

Fake_runtime::Fake_runtime() {
  the_runtime = this;
}
Fake_runtime::~Fake_runtime() {
  the_runtime = nullptr;
}

void Fake_runtime::find(const std::vector<std::uint16_t>& instances) {
  std::vector<tq::com::Found_instance> found;
  found.reserve(instances.size());
  for (const auto instance : instances)
    found.push_back({.service = service_, .instance = instance, .where = nullptr});
  find_handler_(found);
}

void Fake_runtime::notify_bytes(const std::string& element, tq::com::Payload payload) {
  notifications_.at(element)(payload);
}

tq::com::Find_token Fake_runtime::start_find_service(std::string_view service,
                                                     std::optional<std::uint16_t>,
                                                     tq::com::Find_handler handler) {
  service_ = service;
  find_handler_ = std::move(handler);
  return tq::com::Find_token{1};
}
void Fake_runtime::stop_find_service(tq::com::Find_token) {
  find_handler_ = nullptr;
}
std::unique_ptr<tq::com::Consumer> Fake_runtime::connect(const tq::com::Found_instance&) {
  ++connections_;
  return std::make_unique<Consumer>(*this);
}
std::unique_ptr<tq::com::Provider> Fake_runtime::provide(std::string_view service,
                                                         std::string_view specifier) {
  specifier_ = specifier;
  return std::make_unique<Provider>(*this, service);
}
