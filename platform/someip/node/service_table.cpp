#include "platform/someip/node/service_table.h"

#include <string>
#include <utility>

#include "platform/someip/base/hexadecimal.h"

namespace someip {

namespace {

bool is_request(const Header& header) {
  return header.is(Message_type::request) || header.is(Message_type::request_no_return);
}

}  // namespace

void Service_table::add(std::shared_ptr<Provided_instance> instance) {
  const std::lock_guard lock(mutex_);
  instances_[instance->service().id] = std::move(instance);
}

void Service_table::remove(const Provided_instance& instance) {
  std::shared_ptr<Provided_instance> removed;  // goes after the lock
  const std::lock_guard lock(mutex_);
  const auto found = instances_.find(instance.service().id);
  if (found == instances_.end() || found->second.get() != &instance) return;
  removed = std::move(found->second);
  instances_.erase(found);
}

void Service_table::dispatch(Received message,
                             const Endpoint& from,
                             Reply_path reply,
                             Tasks& tasks,
                             Request_budget& budget,
                             Counters& counters,
                             Log& log) const {
  const Header& header = message.header;
  if (!is_request(header)) {
    // Notifications and responses do not belong here and are never answered.
    counters.dropped_wrong_type.add();
    return;
  }
  counters.requests_received.add();
  Request_budget::Place place(budget, message.payload.size());
  if (!place) {
    counters.refused_requests.add();
    return;
  }
  if (header.protocol != protocol_version) {
    counters.dropped_wrong_version.add();
    refuse(header, Return_code::wrong_protocol_version, std::move(reply), std::move(place), tasks);
    return;
  }
  std::shared_ptr<Provided_instance> instance;
  {
    const std::lock_guard lock(mutex_);
    if (const auto found = instances_.find(header.service); found != instances_.end()) {
      instance = found->second;
    }
  }
  if (!instance) {
    counters.dropped_unknown_service.add();
    log.repeated("service", repetition_key(header, from.address), [&] {
      return "requests of " + to_string(from) + " are refused: service " +
             hexadecimal(header.service) + " is not offered at this port";
    });
    refuse(header, Return_code::unknown_service, std::move(reply), std::move(place), tasks);
    return;
  }
  instance->request(std::move(message), from.address, std::move(reply), std::move(place), tasks,
                    log);
}

}  // namespace someip
