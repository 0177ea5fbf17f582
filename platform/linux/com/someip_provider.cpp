#include "platform/linux/com/someip_provider.h"

#include <stdexcept>
#include <string>
#include <utility>

#include "mw/com/cpp_binding/log.h"
#include "mw/com/cpp_binding/trace.h"
#include "platform/linux/com/element_ids.h"
#include "platform/someip/base/hexadecimal.h"

namespace tq::com {

namespace {

void report_value_missing(const std::string& service, std::uint16_t instance, std::uint16_t event) {
  using mw::com::cpp_binding::Trace_event;
  constexpr auto record = mw::com::cpp_binding::Trace_id::Event_request_update_err;
  mw::com::cpp_binding::log_notify_without_value(event);
  mw::com::cpp_binding::trace(record, [&, number = std::to_string(instance)] {
    return Trace_event{.id = record, .service = service, .instance = number, .element = event};
  });
}

}  // namespace

Someip_provider::Someip_provider(const someip::Service_deployment& service,
                                 const someip::Instance_deployment& instance,
                                 someip::Node& node,
                                 std::string manifest)
    : instance_(
          node.server().provide(service,
                                instance,
                                [&name = service.name, id = instance.id](std::uint16_t event) {
                                  report_value_missing(name, id, event);
                                })),
      node_(node),
      manifest_(std::move(manifest)),
      gate_(std::make_shared<Gate>()) {}

Someip_provider::~Someip_provider() {
  Someip_provider::close();
}

Element_ids Someip_provider::element(std::string_view name) const {
  return element_ids(instance_->service(), name);
}

void Someip_provider::set_method_handler(std::uint16_t method, Method_handler handler) {
  try {
    instance_->set_handler(method, [gate = gate_, handler = std::move(handler)](Payload arguments) {
      const Gate::Pass pass(*gate);
      return pass ? handler(arguments) : Response{Return_code::not_ok, {}};
    });
  } catch (const std::out_of_range&) {
    throw std::runtime_error(manifest_ + ": services." + instance_->service().name +
                             ": no method " + someip::hexadecimal(method));
  }
}

void Someip_provider::offer() {
  node_.server().offer(instance_);
}

void Someip_provider::stop_offer() {
  node_.server().stop_offer(instance_);
}

void Someip_provider::close() {
  Someip_provider::stop_offer();
  gate_->close();
}

void Someip_provider::notify(std::uint16_t notifier, Payload value) {
  channel(notifier).notify(value);
}

std::optional<std::vector<std::byte>> Someip_provider::field_value(std::uint16_t notifier) const {
  return channel(notifier).value();
}

someip::Event_channel& Someip_provider::channel(std::uint16_t event) const {
  try {
    return instance_->event(event);
  } catch (const std::out_of_range&) {
    throw std::runtime_error(manifest_ + ": services." + instance_->service().name + ": no event " +
                             someip::hexadecimal(event));
  }
}

}  // namespace tq::com
