/// The path of a received request to the instance that answers it.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "platform/someip/base/counters.h"
#include "platform/someip/base/endpoint.h"
#include "platform/someip/base/log.h"
#include "platform/someip/base/task.h"
#include "platform/someip/net/received.h"
#include "platform/someip/node/provided_instance.h"
#include "platform/someip/node/reply_path.h"
#include "platform/someip/node/request_budget.h"

namespace someip {

/// The instances behind one port, at most one of each service (someip_445). Thread-safe.
class Service_table {
 public:
  void add(std::shared_ptr<Provided_instance> instance);
  void remove(const Provided_instance& instance);
  /// Judges a message that has arrived at the port.
  void dispatch(Received message,
                const Endpoint& from,
                Reply_path reply,
                Tasks& tasks,
                Request_budget& budget,
                Counters& counters,
                Log& log) const;

 private:
  mutable std::mutex mutex_;  ///< guards instances_
  std::map<std::uint16_t, std::shared_ptr<Provided_instance>> instances_;
};

}  // namespace someip
