/// An instance that the node provides: its methods and events, and the judgement of requests.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/someip/base/counters.h"
#include "platform/someip/base/deployment.h"
#include "platform/someip/base/log.h"
#include "platform/someip/base/task.h"
#include "platform/someip/discovery/discovery_types.h"
#include "platform/someip/net/received.h"
#include "platform/someip/net/udp_port.h"
#include "platform/someip/node/event_channel.h"
#include "platform/someip/node/reply_path.h"
#include "platform/someip/node/request_budget.h"

namespace someip {

using tq::com::Method_handler;
using tq::com::Response;

/// Holds the methods and the events of one instance. Any thread may call, except that the control
/// thread drives the changes of an event's targets, see Event_channel.
class Provided_instance : public std::enable_shared_from_this<Provided_instance> {
 public:
  Provided_instance(const Service_deployment& service,
                    const Instance_deployment& instance,
                    std::shared_ptr<Udp_port> udp,
                    const Limits& limits,
                    Counters& counters,
                    const Value_missing_handler& value_missing);

  [[nodiscard]] const Service_deployment& service() const { return service_; }
  [[nodiscard]] const Instance_deployment& deployment() const { return instance_; }
  [[nodiscard]] Instance_key key() const;

  /// Replaces the default getter of a field. Throws std::out_of_range for an id that the service
  /// does not have.
  void set_handler(std::uint16_t method, Method_handler handler);
  /// The event or notifier. Throws std::out_of_range for an id that the service does not have.
  [[nodiscard]] Event_channel& event(std::uint16_t id);
  [[nodiscard]] bool has_event(std::uint16_t id) const { return events_.contains(id); }
  /// The events of a group.
  [[nodiscard]] std::vector<Event_channel*> group(std::uint16_t event_group);

  /// Judges a request in the order of the standard (someip_721). Adds the task that answers it,
  /// with a response or an error, or drops it.
  void request(Received message,
               const Address& from,
               Reply_path reply,
               Request_budget::Place place,
               Tasks& tasks,
               Log& log);

 private:
  struct Method {
    bool fire_and_forget = false;
    Method_handler handler;
  };
  class Request;

  void add_event(std::uint16_t id,
                 std::uint16_t event_group,
                 bool field,
                 Transport transport,
                 const Value_missing_handler& value_missing);

  const Service_deployment& service_;
  const Instance_deployment& instance_;
  const std::shared_ptr<Udp_port> udp_;
  const Limits& limits_;
  Counters& counters_;
  std::map<std::uint16_t, std::unique_ptr<Event_channel>> events_;  ///< fixed after construction
  std::multimap<std::uint16_t, Event_channel*> groups_;             ///< same
  std::mutex mutex_;                                                ///< guards methods_
  std::map<std::uint16_t, std::shared_ptr<const Method>> methods_;
};

}  // namespace someip
