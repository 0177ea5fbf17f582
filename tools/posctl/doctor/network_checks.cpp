/// The GNSS service as the network offers it, and the application's subscriptions.
#include <algorithm>
#include <array>
#include <string>

#include "platform/someip/base/hexadecimal.h"
#include "tools/posctl/doctor/checks.h"

namespace posctl::doctor {

namespace {

using someip::hexadecimal;

constexpr const char* compare_manifests =
    "compare posctl describe on both machines, and correct the manifest of one";

std::string seconds_of(std::uint64_t milliseconds) {
  return std::to_string(milliseconds / 1000) + "." + std::to_string(milliseconds / 100 % 10) + " s";
}

bool known_service(const Facts& facts, std::uint16_t id) {
  const auto& services = facts.deployment->services;
  return std::ranges::find(services, id, &someip::Service_deployment::id) != services.end();
}

std::string source_text(const Facts& facts) {
  return facts.source_address ? facts.source_address->to_string() : "the source";
}

/// The source itself is there: its node answers or its process runs.
bool source_lives(const Facts& facts) {
  if (facts.source_probe == Probe::answered || facts.any_gnss_offer() != nullptr) return true;
  const auto* const local = facts.program(Role::source);
  return local != nullptr && !local->stopped();
}

/// A rule of the packet filter explains the silence.
bool filtered(const Facts& facts) {
  Findings findings;
  check_packet_filter(facts, findings);
  return !findings.all().empty();
}

}  // namespace

void check_service_id(const Facts& facts, Findings& findings) {
  const auto* const wanted = facts.gnss();
  if (wanted == nullptr || facts.any_gnss_offer() != nullptr) return;
  for (const Received_offer& one : facts.offers) {
    if (known_service(facts, one.key.service)) continue;
    const bool from_source =
        facts.source_address && one.offer.from.address == *facts.source_address;
    const bool at_its_port =
        std::ranges::any_of(wanted->instances, [&](const someip::Instance_deployment& instance) {
          return one.offer.udp && instance.udp_port && one.offer.udp->port == *instance.udp_port;
        });
    if (!from_source && !at_its_port) continue;
    findings.fault("the source offers another service id than the manifest has",
                   to_string(one.offer.from) + " offers " + hexadecimal(one.key.service) +
                       ", which no service of the manifest has; " + wanted->name + " has " +
                       hexadecimal(wanted->id),
                   compare_manifests);
    return;
  }
}

void check_service_version(const Facts& facts, Findings& findings) {
  const auto* const wanted = facts.gnss();
  const auto* const offered = facts.any_gnss_offer();
  if (offered == nullptr) return;
  const bool fits = std::ranges::any_of(facts.offers, [&](const Received_offer& one) {
    return one.key.service == wanted->id && one.key.major_version == wanted->major_version;
  });
  if (fits) return;
  findings.fault(wanted->name + " is offered in another version than the application needs",
                 to_string(offered->offer.from) + " offers version " +
                     std::to_string(offered->key.major_version) + ", version " +
                     std::to_string(wanted->major_version) + " is needed",
                 compare_manifests);
}

void check_transport(const Facts& facts, Findings& findings) {
  const auto* const wanted = facts.gnss();
  const auto* const offered = facts.any_gnss_offer();
  if (offered == nullptr) return;
  const auto needs = [&](someip::Transport transport) {
    const auto uses = [&](const auto& element) { return element.transport == transport; };
    return std::ranges::any_of(wanted->fields, uses) || std::ranges::any_of(wanted->events, uses) ||
           std::ranges::any_of(wanted->methods, uses);
  };
  const char* missing = nullptr;
  if (needs(someip::Transport::udp) && !offered->offer.udp) missing = "UDP";
  if (needs(someip::Transport::tcp) && !offered->offer.tcp) missing = "TCP";
  if (missing == nullptr) return;
  findings.fault(wanted->name + " is offered over another transport than the manifest has",
                 "the offer of " + to_string(offered->offer.from) + " has no " + missing +
                     " endpoint, which elements of the service need",
                 compare_manifests);
}

void check_allowed_peers(const Facts& facts, Findings& findings) {
  const auto* const wanted = facts.gnss();
  const auto* const offered = facts.any_gnss_offer();
  if (offered == nullptr || facts.usable_gnss_offer() != nullptr) return;
  const auto& address = offered->offer.from.address;
  if (someip::allows(wanted->allowed_peers, address)) return;
  findings.fault("the source is not an allowed peer",
                 address.to_string() + " offers " + wanted->name +
                     ", and allowedPeers of the service does not have this address",
                 "add \"" + address.to_string() + "\" to services." + wanted->name +
                     ".allowedPeers in " + facts.deployment->source + ", restart the application");
}

void check_subnet(const Facts& facts, Findings& findings) {
  const auto own = facts.application_address();
  const auto* const offered = facts.any_gnss_offer();
  if (!own || offered == nullptr || facts.usable_gnss_offer() != nullptr) return;
  for (const auto& endpoint :
       {std::optional(offered->offer.from), offered->offer.udp, offered->offer.tcp}) {
    if (!endpoint ||
        someip::reachable_peer(endpoint->address, *own, facts.application_prefix_length())) {
      continue;
    }
    findings.fault("the source is outside the application's subnet",
                   "it offers " + to_string(*endpoint) + "; the node POS is " + own->to_string() +
                       "/" + std::to_string(facts.application_prefix_length()),
                   "correct the address of the source, or nodes.POS.prefixLength in " +
                       facts.deployment->source);
    return;
  }
}

void check_multicast_group(const Facts& facts, Findings& findings) {
  if (facts.any_gnss_offer() != nullptr || facts.source_probe != Probe::answered ||
      !facts.listen_error.empty() || filtered(facts)) {
    return;
  }
  const auto& discovery = facts.deployment->discovery;
  findings.fault("the source does not offer in the multicast group of the manifest",
                 source_text(facts) +
                     " answers a search that is sent to it alone, and no offer of it came to " +
                     discovery.multicast_address.to_string() + " for two seconds",
                 "set serviceDiscovery.multicastAddress to the same group in both manifests; if "
                 "they agree, let the "
                 "switches between them pass this group");
}

void check_event_group(const Facts& facts, Findings& findings) {
  const auto* const row = facts.positions_row();
  if (row == nullptr || !row->cause.starts_with("refused by")) return;
  std::string others;
  for (const auto& one : facts.after->peers.eventGroups) {
    if (one.serviceId == row->serviceId && one.subscribed)
      others += (others.empty() ? ", accepted: " : ", ") + hexadecimal(one.eventGroup);
  }
  findings.fault("the source refuses the event group of the positions",
                 "event group " + hexadecimal(row->eventGroup) + ": " + row->cause + others,
                 std::string(compare_manifests) +
                     " (eventGroup of positions); a source that has the group is full or does not "
                     "allow this address");
}

void check_event_id(const Facts& facts, Findings& findings) {
  const auto* const row = facts.positions_row();
  const auto unexpected = facts.growth("droppedUnexpected");
  if (row == nullptr || !row->subscribed || !facts.no_positions() || unexpected == 0) return;
  findings.fault("the source sends the positions with another event id than the manifest has",
                 "event group " + hexadecimal(row->eventGroup) + " is acknowledged, and " +
                     std::to_string(unexpected) +
                     " notifications with an unknown id came while doctor looked",
                 std::string(compare_manifests) +
                     " (notifier of positions); the application's log names the unknown id");
}

void check_source_missing(const Facts& facts, Findings& findings) {
  if (!facts.deployment || facts.any_gnss_offer() != nullptr || source_lives(facts)) return;
  const auto* const local = facts.program(Role::source);
  if (facts.source_probe != Probe::refused || local != nullptr) return;
  const auto* const row = facts.gnss_row();
  findings.fault("no GNSS source runs",
                 "no program on " + source_text(facts) + " has port " +
                     std::to_string(facts.deployment->discovery.port) +
                     (row != nullptr && !row->cause.empty() ? "; " + row->cause : ""),
                 "start the source, for example gnss-gateway");
}

void check_source_frozen(const Facts& facts, Findings& findings) {
  const auto* const local = facts.program(Role::source);
  if (local != nullptr && local->stopped()) {
    findings.fault("the GNSS source is frozen", "/proc says state T of " + local->label(),
                   "kill -CONT " + std::to_string(local->pid));
    return;
  }
  if (!facts.deployment || facts.gnss() == nullptr || facts.any_gnss_offer() != nullptr ||
      facts.source_probe != Probe::silent || !facts.no_positions() || filtered(facts) ||
      !facts.listen_error.empty()) {
    return;
  }
  const bool here =
      facts.source_address && facts.application_address() && facts.source_address->is_loopback();
  if (here && local == nullptr) return;  // check_source_missing() has seen it refused, or it is new
  Findings subset;
  check_service_id(facts, subset);
  if (!subset.all().empty()) return;
  findings.fault(
      "the GNSS source is frozen, off the network, or a packet filter on the way drops it",
      source_text(facts) + " neither offers nor answers a search that is sent to it alone",
      "on its machine: ps and nft list ruleset; from here: ping " + source_text(facts));
}

void check_source_silent(const Facts& facts, Findings& findings) {
  const auto* const row = facts.positions_row();
  if (row == nullptr || !row->subscribed || !facts.no_positions() ||
      facts.any_gnss_offer() == nullptr || facts.growth("droppedUnexpected") != 0 ||
      filtered(facts)) {
    return;
  }
  if (!facts.positions.empty() && facts.positions.size() > 1) {
    findings.fault("positions reach posctl and not the application",
                   "posctl received " + std::to_string(facts.positions.size()) +
                       " notifications, the application none",
                   "nft list ruleset, and the log of the application");
    return;
  }
  const bool never = row->lastNotificationMs == mw::com::runtime::never;
  findings.fault("the source offers its service and sends no positions",
                 "the subscription is acknowledged; last notification: " +
                     (never ? std::string("none") : seconds_of(row->lastNotificationMs) + " ago") +
                     (facts.filter.readable() ? "; no rule of this machine's packet filter drops it"
                                              : "; the packet filter could not be read"),
                 "look at the receiver behind the source; on the way: nft list ruleset");
}

void check_refused_clients(const Facts& facts, Findings& findings) {
  if (!facts.before || !facts.after) return;
  for (const auto& row : facts.after->peers.subscribers) {
    if (row.subscribed || row.refused == 0) continue;
    const auto earlier =
        std::ranges::find_if(facts.before->peers.subscribers, [&](const auto& one) {
          return one.serviceId == row.serviceId && one.eventGroup == row.eventGroup &&
                 one.address == row.address && one.udpPort == row.udpPort;
        });
    const auto before = earlier == facts.before->peers.subscribers.end() ? 0 : earlier->refused;
    if (row.refused == before) continue;
    findings.fault(
        "the application refuses a client",
        row.address + ", event group " + hexadecimal(row.eventGroup) + " of service " +
            hexadecimal(row.serviceId) + ": " + row.cause,
        "posctl peers; then the limit or the list that the cause names, in the manifest");
  }
}

}  // namespace posctl::doctor
