/// The providing side of service discovery: offers in their three phases, and the clients'
/// subscriptions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/someip/base/counters.h"
#include "platform/someip/discovery/discovery_delays.h"
#include "platform/someip/discovery/discovery_outbox.h"
#include "platform/someip/discovery/discovery_types.h"
#include "platform/someip/discovery/refusals.h"

namespace someip {

/// An instance as it is offered.
struct Offer {
  Instance_key key;
  std::uint32_t minor_version = 0;
  Instance_endpoints endpoints;
  std::map<std::uint16_t, Group_transport> groups;
  std::vector<Address> allowed_peers;  ///< empty: all
};

/// The node as the providing side of discovery sees it: receives changes and answers questions.
class Discovery_server_host {
 public:
  virtual ~Discovery_server_host() = default;
  /// True if `client` has an open TCP connection to the endpoint of the offer.
  [[nodiscard]] virtual bool has_connection(const Offer& offer, const Endpoint& client) = 0;
  /// The subscribers of a group have changed. Their acknowledgements have not been sent yet.
  virtual void subscribers_changed(const Instance_key& key,
                                   std::uint16_t event_group,
                                   const std::vector<Subscriber>& all) = 0;
  /// These subscribers of the group shall get the present value of its fields. Their
  /// acknowledgements are on their way. Returns the number of values that each of them gets.
  virtual std::size_t values_wanted(const Instance_key& key,
                                    std::uint16_t event_group,
                                    const std::vector<Subscriber>& fresh) = 0;
  /// The number of notifications that went to all subscribers of the group since the start.
  [[nodiscard]] virtual std::uint64_t sent_to_all(const Instance_key&, std::uint16_t) const {
    return 0;
  }
  /// Follows subscribers_changed() and values_wanted(): the change is complete.
  virtual void subscribers_settled(const Instance_key&, std::uint16_t) {}
  /// A client's subscription to a group was refused, for the first time since the last acceptance.
  virtual void subscription_refused(const Refusal&) {}
};

/// Offers the node's instances and decides on the subscriptions of clients. Lives on one thread.
/// Entries go to the outbox. After each change the caller calls deliver_subscribers(), flushes the
/// outbox and calls deliver_initial_values().
class Discovery_server {
 public:
  Discovery_server(const Discovery_timing& timing,
                   const Limits& limits,
                   Discovery_delays& delays,
                   Discovery_outbox& outbox,
                   Counters& counters,
                   Discovery_server_host& host)
      : timing_(timing),
        limits_(limits),
        delays_(delays),
        outbox_(outbox),
        counters_(counters),
        host_(host) {}

  void offer(Offer offer, Time now);
  void stop_offer(const Instance_key& key, Time now);
  void stop_all(Time now);

  void find(const Entry& entry, const Origin& from, bool multicast, bool unicast_flag, Time now);
  /// True if events may be sent there.
  using Acceptable = std::function<bool(const Instance_endpoints&)>;
  /// `options` are those of the entry; `explicit_initial_data` is the flag of the message.
  void subscribe(const Entry& entry,
                 const Entry_options& options,
                 const Acceptable& acceptable,
                 const Origin& from,
                 bool explicit_initial_data,
                 Time now);
  /// All subscriptions of a peer that has restarted end.
  void forget_peer(const Origin& peer);
  /// Ends the subscriptions over a client's TCP connection, which has ended.
  void connection_lost(const Endpoint& client);
  /// The client has closed the port that receives its events, which ends its subscriptions there.
  /// Returns their number.
  std::size_t port_closed(const Endpoint& client);

  /// Ends all subscriptions; offers wait for the link.
  void link_down();
  /// Every offer begins with its initial wait phase.
  void link_up(Time now);

  void deliver_subscribers();
  void deliver_initial_values();

  void on_time(Time now);
  [[nodiscard]] Time next_deadline() const;

  struct Accepted_subscription {
    Subscriber subscriber;
    Time since;
    Time expires;
    bool fresh = false;         ///< initial values not yet sent
    std::uint64_t refused = 0;  ///< attempts before it
    std::uint64_t values = 0;   ///< initial values sent
    /// Discovery_server_host::sent_to_all() at the time when the host first knew of the
    /// subscription.
    std::optional<std::uint64_t> sent_before;
  };
  /// Calls `visit(key, event_group, subscription)` for each subscription.
  template <class Visit>
  void for_each_subscription(Visit&& visit) const {
    for (const auto& [key, local] : offers_) {
      for (const auto& [group, state] : local.groups) {
        for (const Accepted_subscription& subscription : state.subscriptions)
          visit(key, group, subscription);
      }
    }
  }
  /// The clients that have been refused and not accepted since, the last ones.
  [[nodiscard]] const std::vector<Refusal>& refusals() const { return refusals_.all(); }

 private:
  enum class Phase : std::uint8_t { initial_wait, repetition, main };
  struct Group {
    std::vector<Accepted_subscription> subscriptions;
    bool changed = false;        ///< since deliver_subscribers()
    bool values_wanted = false;  ///< by one of them at least
  };
  struct Local {
    Offer offer;
    Phase phase = Phase::initial_wait;
    std::uint32_t repetitions = 0;
    Time next;
    std::map<std::uint16_t, Group> groups;
  };
  /// Offers that answer finds by multicast or in another's name.
  struct Answer {
    Time due;
    std::set<Instance_key> instances;
  };

  void send_offer(const Local& local,
                  std::uint32_t ttl,
                  const Discovery_outbox::Destination& to,
                  Time due = {});
  void advance(Local& local, Time now);
  void begin_offer(Local& local, Time now);
  void end_all_subscriptions(Local& local);
  [[nodiscard]] Answer* answer_to(const Discovery_outbox::Destination& to, Time now);
  void refuse(Entry entry,
              const Origin& to,
              const Instance_endpoints& endpoints,
              std::string_view cause,
              Time now);
  [[nodiscard]] std::string_view cause_of_missing(const Entry& entry) const;
  void acknowledge(Entry entry, const Group_transport& transport, const Origin& to);
  /// Adds the subscription or renews it. False when a bound refuses the newcomer.
  [[nodiscard]] bool keep(Group& group,
                          const Subscriber& subscriber,
                          const Entry& entry,
                          bool explicit_initial_data,
                          Time now);
  template <class Predicate>
  std::size_t end_subscriptions(Predicate&& ends);

  const Discovery_timing& timing_;
  const Limits& limits_;
  Discovery_delays& delays_;
  Discovery_outbox& outbox_;
  Counters& counters_;
  Discovery_server_host& host_;
  bool link_up_ = true;
  std::map<Instance_key, Local> offers_;
  /// A group has changed or wants values. Most messages touch no group: they must not cost a look
  /// at every offer.
  bool unsettled_ = false;
  Time next_expiry_ = Time::max();                           ///< no subscription expires before it
  std::map<Discovery_outbox::Destination, Answer> answers_;  ///< waiting for their delay
  Refusals refusals_;
};

}  // namespace someip
