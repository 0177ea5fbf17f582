#include "Recording_runtime.h"

#include <stdexcept>

namespace {
Recording_runtime* current = nullptr;

constexpr std::uint16_t id_of(std::string_view element) {
  return element == "Cancel" ? 2 : element == "MonitorAction" ? 0x8001 : 1;
}
}  // namespace

tq::com::Runtime& tq::com::Runtime::instance() {
  if (current == nullptr) throw std::logic_error{"no runtime"};
  return *current;
}

class Recording_runtime::Provider : public tq::com::Provider {
 public:
  Provider(Recording_runtime& runtime, std::string_view service, std::string_view specifier)
      : runtime_{runtime}, service_{service}, specifier_{specifier} {}
  ~Provider() override {
    Provider::close();
    const std::lock_guard lock{runtime_.mutex_};
    runtime_.instances_.erase(specifier_);
  }

  std::string_view service() const override { return service_; }
  std::uint16_t instance() const override { return 1; }
  tq::com::Element_ids element(std::string_view name) const override {
    const auto id = id_of(name);
    tq::com::Element_ids ids;
    (id < 0x8000 ? ids.method : ids.notifier) = id;
    return ids;
  }
  void set_method_handler(std::uint16_t method, tq::com::Method_handler handler) override {
    const std::lock_guard lock{runtime_.mutex_};
    runtime_.instances_[specifier_].handlers[method] = std::move(handler);
  }
  void offer() override { set_offered(true); }
  void stop_offer() override { set_offered(false); }
  void close() override {
    set_offered(false);
    std::unique_lock lock{runtime_.mutex_};
    runtime_.idle_.wait(lock, [this] { return runtime_.instances_[specifier_].running == 0; });
  }
  void update_field(std::uint16_t, tq::com::Payload) override {}
  void send_event(std::uint16_t, tq::com::Payload value) override {
    if (runtime_.on_send) runtime_.on_send();
    Bytes bytes;
    for (const auto byte : value)
      bytes.push_back(std::to_integer<std::uint8_t>(byte));
    const std::lock_guard lock{runtime_.mutex_};
    auto& instance = runtime_.instances_[specifier_];
    if (instance.is_offered) instance.sent.push_back(std::move(bytes));
  }

 private:
  void set_offered(bool offered) {
    const std::lock_guard lock{runtime_.mutex_};
    runtime_.instances_[specifier_].is_offered = offered;
  }

  Recording_runtime& runtime_;
  const std::string service_;
  const std::string specifier_;
};

Recording_runtime::Recording_runtime() {
  current = this;
}
Recording_runtime::~Recording_runtime() {
  current = nullptr;
}

tq::com::Find_token Recording_runtime::start_find_service(std::string_view,
                                                          std::optional<std::uint16_t>,
                                                          tq::com::Find_handler) {
  throw std::logic_error{"nothing to find"};
}
void Recording_runtime::stop_find_service(tq::com::Find_token) {}
std::unique_ptr<tq::com::Consumer> Recording_runtime::connect(const tq::com::Found_instance&) {
  throw std::logic_error{"nothing to connect to"};
}
std::unique_ptr<tq::com::Provider> Recording_runtime::provide(std::string_view service,
                                                              std::string_view specifier) {
  return std::make_unique<Provider>(*this, service, specifier);
}

tq::com::Response Recording_runtime::call(std::string_view specifier,
                                          std::string_view method,
                                          const Bytes& arguments) {
  Instance* instance = nullptr;
  tq::com::Method_handler handler;
  {
    const std::lock_guard lock{mutex_};
    instance = &instances_.find(specifier)->second;
    handler = instance->handlers.at(id_of(method));
    ++instance->running;
  }
  auto response = handler(std::as_bytes(std::span{arguments}));
  const std::lock_guard lock{mutex_};
  --instance->running;
  idle_.notify_all();
  return response;
}

std::vector<std::string> Recording_runtime::offered() const {
  const std::lock_guard lock{mutex_};
  std::vector<std::string> names;
  for (const auto& [specifier, instance] : instances_) {
    if (instance.is_offered) names.push_back(specifier);
  }
  return names;
}

std::vector<Bytes> Recording_runtime::sent(std::string_view specifier) const {
  const std::lock_guard lock{mutex_};
  const auto found = instances_.find(specifier);
  return found == instances_.end() ? std::vector<Bytes>{} : found->second.sent;
}
