/// The observations of posctl doctor, before its checks judge them.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "binding/statistics.h"
#include "clients/gnss_records.h"
#include "platform/someip/base/deployment.h"
#include "tools/posctl/doctor/packet_filter.h"
#include "tools/posctl/doctor/programs.h"
#include "tools/posctl/offer_table.h"

namespace posctl::doctor {

/// The answers of the application at one moment.
struct Answers {
  mw::com::runtime::Process_usage process;
  mw::com::runtime::Clock_state clock;
  mw::com::runtime::Peers peers;
  binding::Stamp_counts stamps;
  std::map<std::string, std::uint64_t> counters;
};

struct Received_offer {
  someip::Instance_key key;
  Seen_offer offer;
};

/// The answer of a node to a search that was sent to it alone.
enum class Probe : std::uint8_t {
  silent,
  refused,   ///< its machine says that no program has the port
  answered,  ///< by an offer
};

/// A notification of the GNSS service, as this program received it.
struct Received_positions {
  std::vector<lumo::services::gnss::datatypes::DT_positions_struct> samples;
  std::chrono::nanoseconds received{};  ///< on the time base
};

struct Bus_state {
  bool asked = false;  ///< false: POS_STATE_BUS is none
  bool owned = false;  ///< the application has its name on the bus
  std::string error;
};

struct Facts {
  // The machine
  std::vector<Program> programs, programs_later;
  Packet_filter filter;
  Bus_state bus;
  std::uint64_t restarts = 0;                           ///< of the service, as systemd counts them
  std::uint64_t dropped_before = 0, dropped_after = 0;  ///< datagrams at the application's address

  // The manifest that this program uses
  std::optional<someip::Deployment> deployment;
  std::string manifest_error;

  // The network
  std::string listen_error;
  std::vector<Received_offer> offers;
  std::optional<someip::Address> source_address;
  Probe source_probe = Probe::silent;
  std::string node_error;  ///< why this program has no node of its own

  // The application
  std::optional<Answers> before, after;
  std::string answer_error;
  std::vector<Received_positions> positions;

  /// Null if there is none.
  [[nodiscard]] const Program* program(Role role) const;
  [[nodiscard]] const someip::Service_deployment* service(std::string_view name) const;
  [[nodiscard]] const someip::Service_deployment* gnss() const;
  /// With the application's own address, if its environment replaces that of the manifest.
  [[nodiscard]] std::optional<someip::Address> application_address() const;
  [[nodiscard]] unsigned application_prefix_length() const;
  /// The offer of the GNSS service that the application can use.
  [[nodiscard]] const Received_offer* usable_gnss_offer() const;
  /// An offer with the id of the GNSS service, in any version.
  [[nodiscard]] const Received_offer* any_gnss_offer() const;
  /// The application's row of the GNSS service; null if it did not answer.
  [[nodiscard]] const mw::com::runtime::Consumed_service* gnss_row() const;
  /// That of the event group of its positions.
  [[nodiscard]] const mw::com::runtime::Consumed_event_group* positions_row() const;
  /// The growth of a counter of the application while this program looked.
  [[nodiscard]] std::uint64_t growth(const std::string& counter) const;
  /// The application receives no positions now.
  [[nodiscard]] bool no_positions() const;
  /// The application cannot be asked, although it runs on this machine.
  [[nodiscard]] bool application_mute() const {
    return !after && program(Role::application) != nullptr;
  }
};

}  // namespace posctl::doctor
