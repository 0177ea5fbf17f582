#include "platform/someip/node/provided_instance.h"

#include <string>
#include <utility>

#include "platform/someip/base/hexadecimal.h"

namespace someip {

/// A request on its way to the handler.
class Provided_instance::Request final : public Task {
 public:
  Request(std::shared_ptr<Provided_instance> instance,
          std::shared_ptr<const Method> method,
          Received message,
          Reply_path reply,
          Request_budget::Place place)
      : instance_(std::move(instance)),
        method_(std::move(method)),
        message_(std::move(message)),
        reply_(std::move(reply)),
        place_(std::move(place)) {}

  void run() override {
    Response response;
    try {
      response = method_->handler(message_.payload);
    } catch (...) {
      response = {Return_code::not_ok, {}};
    }
    if (method_->fire_and_forget) return;
    if (header_size + response.payload.size() > instance_->limits_.message_bytes) {
      instance_->counters_.refused_message_size.add();
      response = {Return_code::not_ok, {}};
    }
    Header header = message_.header;
    header.type = static_cast<std::uint8_t>(Message_type::response);
    header.code = static_cast<std::uint8_t>(response.code);
    instance_->counters_.responses_sent.add();
    reply_.send(header, response.code == Return_code::ok ? Bytes(response.payload) : Bytes{});
  }

 private:
  const std::shared_ptr<Provided_instance> instance_;
  const std::shared_ptr<const Method> method_;
  const Received message_;
  const Reply_path reply_;
  const Request_budget::Place place_;
};

Provided_instance::Provided_instance(const Service_deployment& service,
                                     const Instance_deployment& instance,
                                     std::shared_ptr<Udp_port> udp,
                                     const Limits& limits,
                                     Counters& counters,
                                     const Value_missing_handler& value_missing)
    : service_(service),
      instance_(instance),
      udp_(std::move(udp)),
      limits_(limits),
      counters_(counters) {
  for (const Method_deployment& method : service.methods) {
    methods_[method.id] = std::make_shared<Method>(Method{method.fire_and_forget, nullptr});
  }
  for (const Event_deployment& event : service.events) {
    add_event(event.id, event.event_group, false, event.transport, value_missing);
  }
  for (const Field_deployment& field : service.fields) {
    if (field.setter) methods_[*field.setter] = std::make_shared<Method>();
    if (field.notifier) {
      add_event(*field.notifier, field.event_group, true, field.transport, value_missing);
    }
    if (!field.getter) continue;
    Method getter;
    if (field.notifier) {
      getter.handler = [&channel = event(*field.notifier)](Bytes) {
        auto value = channel.value();
        return value ? Response{Return_code::ok, std::move(*value)}
                     : Response{Return_code::not_ok, {}};
      };
    }
    methods_[*field.getter] = std::make_shared<Method>(std::move(getter));
  }
}

void Provided_instance::add_event(std::uint16_t id,
                                  std::uint16_t event_group,
                                  bool field,
                                  Transport transport,
                                  const Value_missing_handler& value_missing) {
  auto channel = std::make_unique<Event_channel>(service_.id, id, service_.major_version, field,
                                                 transport, udp_, counters_, value_missing);
  groups_.emplace(event_group, channel.get());
  events_.emplace(id, std::move(channel));
}

Instance_key Provided_instance::key() const {
  return {service_.id, instance_.id, service_.major_version};
}

void Provided_instance::set_handler(std::uint16_t method, Method_handler handler) {
  const std::lock_guard lock(mutex_);
  auto& present = methods_.at(method);
  present = std::make_shared<Method>(Method{present->fire_and_forget, std::move(handler)});
}

Event_channel& Provided_instance::event(std::uint16_t id) {
  return *events_.at(id);
}

std::vector<Event_channel*> Provided_instance::group(std::uint16_t event_group) {
  std::vector<Event_channel*> channels;
  const auto [begin, end] = groups_.equal_range(event_group);
  for (auto at = begin; at != end; ++at)
    channels.push_back(at->second);
  return channels;
}

void Provided_instance::request(Received message,
                                const Address& from,
                                Reply_path reply,
                                Request_budget::Place place,
                                Tasks& tasks,
                                Log& log) {
  const Header& header = message.header;
  if (!allows(service_.allowed_peers, from)) {
    counters_.dropped_foreign_peer.add();
    log.repeated("foreign request", repetition_key(header, from), [&] {
      return "requests of " + from.to_string() + " to " + service_.name +
             " are dropped: it is not an allowed peer";
    });
    return;
  }
  if (header.interface_version != service_.major_version) {
    counters_.dropped_wrong_version.add();
    refuse(header, Return_code::wrong_interface_version, std::move(reply), std::move(place), tasks);
    return;
  }
  std::shared_ptr<const Method> method;
  {
    const std::lock_guard lock(mutex_);
    if (const auto found = methods_.find(header.method); found != methods_.end()) {
      method = found->second;
    }
  }
  if (!method || !method->handler) {
    counters_.dropped_unknown_method.add();
    log.repeated("method", repetition_key(header, from), [&] {
      return "requests of " + from.to_string() + " are refused: " + service_.name +
             " has no method " + hexadecimal(header.method);
    });
    refuse(header, Return_code::unknown_method, std::move(reply), std::move(place), tasks);
    return;
  }
  if (header.is(Message_type::request_no_return) != method->fire_and_forget || header.code != 0) {
    counters_.dropped_wrong_type.add();
    refuse(header, Return_code::wrong_message_type, std::move(reply), std::move(place), tasks);
    return;
  }
  tasks.push_back(std::make_shared<Request>(shared_from_this(), std::move(method),
                                            std::move(message), std::move(reply),
                                            std::move(place)));
}

}  // namespace someip
