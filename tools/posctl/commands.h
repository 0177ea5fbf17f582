/// The commands of posctl. Each returns the process's exit code; what they throw is printed by
/// main().
#pragma once

#include <cstdint>
#include <string>

#include "tools/posctl/way.h"

namespace posctl {

struct Watch_options {
  bool json = false;
  std::uint64_t count = 0;  ///< lines; 0: until interrupted
  double timeout = 0;       ///< seconds; 0: none
  std::string field;        ///< "positions" or "posMapInfo"; empty: both
  Way_options way;
};
/// Prints each notification of the Positioning service on a line.
int watch(const Watch_options& options);

/// Prints the manifest in force and every record.
int describe_deployment(bool as_json);

struct Read_options {
  std::string data_identifier;
  bool json = false;
  double timeout = 5;  ///< seconds
  Way_options way;
};
/// Reads a diagnostic data identifier. Throws tools::Usage_error for an unknown one.
int read(const Read_options& options);

struct Monitor_options {
  bool json = false;
  std::uint64_t count = 0;  ///< lines; 0: until interrupted
  double timeout = 0;       ///< seconds; 0: none
  Way_options way;
};
/// Prints each action that a diagnostic monitor reports on a line.
int monitors(const Monitor_options& options);

struct Init_monitor_options {
  std::string monitor;  ///< name or identifier
  unsigned reason = 0;  ///< number of mw::dm::dem::InitMonitorReason
  double timeout = 5;   ///< seconds
  Way_options way;
};
/// Does what the diagnostic event manager does when it initialises a monitor. Throws
/// tools::Usage_error for an unknown monitor.
int init_monitor(const Init_monitor_options& options);

struct State_options {
  std::string state;
  std::uint32_t sequence_number = 1;
  double timeout = 5;  ///< seconds for all of it, from opening the bus to the answer
};
/// Asks for a component state, as state management does; 1 when it is refused.
int request_state(const State_options& options);

struct Look_options {
  bool json = false;
  double timeout = 5;  ///< seconds
  Way_options way;
};
/// Prints every counter of the application's runtime, its memory, threads and uptime, the ages of
/// its positions and the state of its clock.
int stats(const Look_options& options);
/// Prints to whom the application sends, what it uses, and why data does not flow.
int peers(const Look_options& options);
struct Discover_options {
  bool json = false;
  bool follow = false;  ///< prints each change as it comes
  double seconds = 0;   ///< 0: until interrupted
  std::string node = "posctl";
};
/// Prints everything that is offered on the network, also what the manifest does not have.
int discover(const Discover_options& options);
/// Prints all that the application tells about itself on one page. 1 when it does not answer.
int status(const Look_options& options);

}  // namespace posctl
