#include "tools/posctl/doctor/facts.h"

#include <algorithm>

#include "app/application_instance.h"
#include "clients/GNSS.h"

namespace posctl::doctor {

using lumo::services::gnss::GNSS;

namespace {

const someip::Node_deployment* node_of_application(
    const std::optional<someip::Deployment>& manifest) {
  if (!manifest) return nullptr;
  const auto found =
      std::ranges::find(manifest->nodes, application_node, &someip::Node_deployment::name);
  return found == manifest->nodes.end() ? nullptr : &*found;
}

}  // namespace

const Program* Facts::program(Role role) const {
  const auto found = std::ranges::find(programs, role, &Program::role);
  return found == programs.end() ? nullptr : &*found;
}

const someip::Service_deployment* Facts::service(std::string_view name) const {
  if (!deployment) return nullptr;
  const auto found =
      std::ranges::find(deployment->services, name, &someip::Service_deployment::name);
  return found == deployment->services.end() ? nullptr : &*found;
}

const someip::Service_deployment* Facts::gnss() const {
  return service(GNSS::name);
}

std::optional<someip::Address> Facts::application_address() const {
  if (!deployment) return std::nullopt;
  if (const auto* application = program(Role::application)) {
    if (const auto* replaced = application->variable("POS_NODE_ADDRESS")) {
      boost::system::error_code error;
      const auto address = boost::asio::ip::make_address(*replaced, error);
      if (!error) return address;
    }
  }
  const auto* const node = node_of_application(deployment);
  if (node == nullptr || node->addresses.empty()) return std::nullopt;
  return node->addresses.front();
}

unsigned Facts::application_prefix_length() const {
  const auto* const node = node_of_application(deployment);
  return node != nullptr ? node->prefix_length : 0;
}

const Received_offer* Facts::any_gnss_offer() const {
  const auto* const wanted = gnss();
  if (wanted == nullptr) return nullptr;
  const auto found = std::ranges::find_if(
      offers, [&](const Received_offer& one) { return one.key.service == wanted->id; });
  return found == offers.end() ? nullptr : &*found;
}

const Received_offer* Facts::usable_gnss_offer() const {
  const auto* const wanted = gnss();
  const auto own = application_address();
  if (wanted == nullptr || !own) return nullptr;
  const auto found = std::ranges::find_if(offers, [&](const Received_offer& one) {
    return one.key.service == wanted->id && one.key.major_version == wanted->major_version &&
           one.offer.udp &&
           someip::reachable_peer(one.offer.from.address, *own, application_prefix_length()) &&
           someip::allows(wanted->allowed_peers, one.offer.from.address);
  });
  return found == offers.end() ? nullptr : &*found;
}

const mw::com::runtime::Consumed_service* Facts::gnss_row() const {
  if (!after) return nullptr;
  const auto& rows = after->peers.services;
  const auto found =
      std::ranges::find(rows, GNSS::name, &mw::com::runtime::Consumed_service::service);
  return found == rows.end() ? nullptr : &*found;
}

const mw::com::runtime::Consumed_event_group* Facts::positions_row() const {
  const auto* const wanted = gnss();
  if (!after || wanted == nullptr) return nullptr;
  const auto field =
      std::ranges::find(wanted->fields, GNSS::positions.name, &someip::Field_deployment::name);
  if (field == wanted->fields.end()) return nullptr;
  const auto& rows = after->peers.eventGroups;
  auto found = std::ranges::find_if(rows, [&](const auto& row) {
    return row.serviceId == wanted->id && row.eventGroup == field->event_group;
  });
  // The file may have been edited since the application read it: then a refused group is the one.
  if (found == rows.end()) {
    found = std::ranges::find_if(rows, [&](const auto& row) {
      return row.serviceId == wanted->id && row.cause.starts_with("refused by");
    });
  }
  return found == rows.end() ? nullptr : &*found;
}

std::uint64_t Facts::growth(const std::string& counter) const {
  if (!before || !after) return 0;
  const auto first = before->counters.find(counter);
  const auto last = after->counters.find(counter);
  if (first == before->counters.end() || last == after->counters.end()) return 0;
  return last->second - first->second;
}

bool Facts::no_positions() const {
  constexpr std::uint64_t silence_ms = 1500;
  if (application_mute()) return true;
  if (!after) return false;
  if (before && after->stamps.notifications > before->stamps.notifications) return false;
  const auto* const row = positions_row();
  return row == nullptr || row->lastNotificationMs > silence_ms;
}

}  // namespace posctl::doctor
