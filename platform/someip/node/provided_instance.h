/// An instance that the node provides: its methods and events, and the judgement of requests.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/someip/base/counters.h"
#include "platform/someip/base/deployment.h"
#include "platform/someip/base/log.h"
#include "platform/someip/base/task.h"
#include "platform/someip/discovery/discovery_types.h"
#include "platform/someip/net/received.h"
#include "platform/someip/net/udp_port.h"
#include "platform/someip/node/event_channel.h"

namespace someip {

using tq::com::Method_handler;
using tq::com::Response;

/// The way of a response back to the client.
struct Reply_path {
  std::shared_ptr<Udp_port> udp;   ///< with `to`; or
  std::shared_ptr<Stream> stream;  ///< the connection that the request came over
  Socket_address to;

  void send(const Header& header, Bytes payload) const;
};

/// Counts the requests that a node has received and not answered yet, and their bytes, over all its
/// ports. Past a bound the node drops requests, so that a peer faster than the handlers cannot fill
/// the memory.
class Request_budget {
 public:
  explicit Request_budget(const Limits& limits)
      : most_(limits.queued_requests), most_bytes_(limits.queued_request_bytes) {}

  /// A place for a request of `bytes`, which its destructor gives back.
  class Place {
   public:
    Place(Request_budget& budget, std::size_t bytes)
        : budget_(budget.enter(bytes) ? &budget : nullptr), bytes_(bytes) {}
    Place(Place&& other) noexcept
        : budget_(std::exchange(other.budget_, nullptr)), bytes_(other.bytes_) {}
    Place& operator=(Place&&) = delete;
    ~Place() {
      if (budget_ != nullptr) budget_->leave(bytes_);
    }
    explicit operator bool() const { return budget_ != nullptr; }

   private:
    Request_budget* budget_;
    std::size_t bytes_;
  };

 private:
  bool enter(std::size_t bytes) {
    const auto before = taken_.fetch_add(1, std::memory_order_relaxed);
    const auto bytes_before = taken_bytes_.fetch_add(bytes, std::memory_order_relaxed);
    // A request larger than the bound is answered if it is alone.
    if (before < most_ && (before == 0 || bytes_before + bytes <= most_bytes_)) return true;
    leave(bytes);
    return false;
  }
  void leave(std::size_t bytes) {
    taken_bytes_.fetch_sub(bytes, std::memory_order_relaxed);
    taken_.fetch_sub(1, std::memory_order_relaxed);
  }

  const std::size_t most_;
  const std::size_t most_bytes_;
  std::atomic<std::size_t> taken_{0};  ///< relaxed, as the next: they guard nothing else
  std::atomic<std::size_t> taken_bytes_{0};
};

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

  /// Replaces the getter that a field has by itself. Throws std::out_of_range for an id that the
  /// service does not have.
  void set_handler(std::uint16_t method, Method_handler handler);
  /// The event or notifier; throws std::out_of_range when the service has none of that id.
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

/// The instances behind one port, at most one of each service (someip_445).
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
