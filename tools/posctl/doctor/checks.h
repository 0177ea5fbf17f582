/// The checks of posctl doctor. Each judges the facts and adds its findings; table.cpp names them.
#pragma once

#include <span>
#include <string_view>

#include "tools/posctl/doctor/facts.h"
#include "tools/posctl/doctor/finding.h"

namespace posctl::doctor {

struct Check {
  std::string_view name;
  std::string_view fault;     ///< the fault that it finds
  std::string_view evidence;  ///< the facts that show the fault
  std::string_view cure;
  void (*look)(const Facts& facts, Findings& findings);
};

/// Causes come before their symptoms.
[[nodiscard]] std::span<const Check> checks();

// Manifest and programs
void check_manifest(const Facts& facts, Findings& findings);
void check_same_manifest(const Facts& facts, Findings& findings);
void check_application(const Facts& facts, Findings& findings);
void check_restarting(const Facts& facts, Findings& findings);
void check_watchdog(const Facts& facts, Findings& findings);
void check_limits(const Facts& facts, Findings& findings);
void check_tool(const Facts& facts, Findings& findings);

// Machine
void check_address(const Facts& facts, Findings& findings);
void check_address_taken(const Facts& facts, Findings& findings);
void check_interface(const Facts& facts, Findings& findings);
void check_multicast_route(const Facts& facts, Findings& findings);
void check_multicast_join(const Facts& facts, Findings& findings);
void check_receive_buffer(const Facts& facts, Findings& findings);
void check_packet_filter(const Facts& facts, Findings& findings);

// Services of the network
void check_service_id(const Facts& facts, Findings& findings);
void check_service_version(const Facts& facts, Findings& findings);
void check_transport(const Facts& facts, Findings& findings);
void check_allowed_peers(const Facts& facts, Findings& findings);
void check_subnet(const Facts& facts, Findings& findings);
void check_multicast_group(const Facts& facts, Findings& findings);
void check_event_group(const Facts& facts, Findings& findings);
void check_event_id(const Facts& facts, Findings& findings);
void check_source_missing(const Facts& facts, Findings& findings);
void check_source_frozen(const Facts& facts, Findings& findings);
void check_source_silent(const Facts& facts, Findings& findings);
void check_refused_clients(const Facts& facts, Findings& findings);

// Positions and clock
void check_position_type(const Facts& facts, Findings& findings);
void check_physical_values(const Facts& facts, Findings& findings);
void check_standing_values(const Facts& facts, Findings& findings);
void check_stamps(const Facts& facts, Findings& findings);
void check_standing_stamps(const Facts& facts, Findings& findings);
void check_clock(const Facts& facts, Findings& findings);

// Storage, log and bus
void check_storage_folder(const Facts& facts, Findings& findings);
void check_storage_writable(const Facts& facts, Findings& findings);
void check_storage_content(const Facts& facts, Findings& findings);
void check_storage_space(const Facts& facts, Findings& findings);
void check_storage_shared(const Facts& facts, Findings& findings);
void check_log_daemon(const Facts& facts, Findings& findings);
void check_bus(const Facts& facts, Findings& findings);

}  // namespace posctl::doctor
