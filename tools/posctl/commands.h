/// The commands of posctl. Each returns the process's exit code. main() prints the exceptions that
/// they throw.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/posctl/position_choice.h"
#include "tools/posctl/way.h"

namespace posctl {

struct Watch_options {
  /// "table", "wide", "json" or "lines"; empty: a table on a terminal, else lines
  std::string output;
  std::uint64_t count = 0;  ///< notifications; 0: until interrupted
  double timeout = 0;       ///< seconds; 0: none
  std::string field;        ///< "positions" or "posMapInfo"; empty: both
  Way_options way;
};
/// Prints each notification of the Positioning service on a line. A table has positions only, and
/// lines that say when nothing comes and when the positions are back.
int watch(const Watch_options& options);

struct Describe_options {
  bool json = false;
  std::string man;                      ///< a folder: write the manual pages there
  std::string completion;               ///< "bash", "zsh" or "fish": print its completion
  std::string wireshark;                ///< a folder: write a Wireshark profile there
  std::vector<std::string> interfaces;  ///< files: descriptions of more services, for the profile
};
/// Prints the manifest in force and every record.
int describe_deployment(bool as_json);
/// The same, or what `options` asks for instead.
int describe(const Describe_options& options);
/// Writes a Wireshark profile for the manifest in force into a folder: names, payloads, ports. The
/// files describe the interfaces of other applications (binding/interface_description.h).
int describe_for_wireshark(const std::string& folder, const std::vector<std::string>& interfaces);

struct Read_options {
  std::string data_identifier;
  bool json = false;
  double timeout = 5;  ///< seconds
  Way_options way;
};
/// Reads one diagnostic data identifier or "all". Throws tools::Usage_error for an unknown one.
int read(const Read_options& options);

struct Monitor_options {
  bool json = false;
  bool reports_only = false;  ///< does not begin with the present states
  std::uint64_t count = 0;    ///< lines; 0: until interrupted
  double timeout = 0;         ///< seconds; 0: none
  Way_options way;
};
/// Prints the present state of each diagnostic monitor, then each action that one reports.
int monitors(const Monitor_options& options);

struct Init_monitor_options {
  std::string monitor;  ///< name or identifier
  std::string reason;   ///< name of a mw::dm::dem::InitMonitorReason
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
/// Prints subscribers, providers, and the cause of missing data.
int peers(const Look_options& options);
struct Discover_options {
  bool json = false;
  bool follow = false;  ///< prints each change as it comes
  double seconds = 0;   ///< 0: until interrupted
  std::string node = "posctl";
};
/// Prints every offer on the network, also those of services that the manifest does not have.
int discover(const Discover_options& options);
struct Status_options : Look_options {
  bool watch = false;  ///< looks again each second
};
/// Prints a verdict and the state of the application on one page. Returns 0 if the
/// application is healthy, tools::exit_failed if it is not.
int status(const Status_options& options);

/// Prints each setting: value, origin, and whether a restart would change it.
int settings(const Look_options& options);
struct Set_options {
  std::string key;
  std::string value;
  double timeout = 1;  ///< seconds to wait for a running application
  Way_options way;
};
/// Stores a setting for the next start. Throws tools::Usage_error for an unknown key or another
/// type, and std::runtime_error while the application runs.
int set_setting(const Set_options& options);

struct Log_options {
  std::vector<std::string> levels;  ///< "GNSS=debug"; empty: print those in force
  bool json = false;
  double timeout = 5;  ///< seconds
  Way_options way;
};
/// Sets levels of the application's log contexts, or prints them.
int log(const Log_options& options);

struct Call_options {
  std::string method;          ///< "Statistics.Counters"; empty: list all
  std::string argument;        ///< JSON
  std::uint16_t instance = 0;  ///< 0: the first that is found
  double timeout = 5;          ///< seconds
  Way_options way;
};
/// Calls a method, or reads a field, and prints the result as JSON.
int call(const Call_options& options);

struct Validate_options {
  std::string manifest;
  bool json = false;
};
/// Says whether a file is a valid deployment manifest. Returns tools::exit_failed if it is not.
int validate(const Validate_options& options);

struct Explain_options {
  std::string name;  ///< empty: all
  bool json = false;
  bool markdown = false;
};
/// Prints the meaning of a counter, status, setting, identifier, member or abbreviation.
int explain_name(const Explain_options& options);

struct Exporter_options {
  std::string listen = "127.0.0.1:9464";
  bool list = false;  ///< prints the table of metrics instead
  Way_options way;
};
/// Answers Prometheus over HTTP until it is interrupted.
int exporter(const Exporter_options& options);

struct Export_options {
  std::string gpx, kml, csv, geojson;      ///< one of them is the file, "-" standard output
  std::string from;                        ///< lines of posctl watch -o json; empty: live
  std::string position = output_position;  ///< of position_choices()
  std::uint64_t count = 0;                 ///< positions; 0: until interrupted
  double timeout = 0;                      ///< seconds; 0: none
  Way_options way;
};
/// Writes positions to a file for other programs.
int export_track(const Export_options& options);

struct Nmea_options {
  std::string listen = "-";  ///< "tcp:[ADDRESS:]PORT", "udp:HOST:PORT" or standard output
  double max_age = 2;        ///< seconds; an older position is not valid
  std::string position = output_position;  ///< of position_choices()
  std::uint64_t count = 0;                 ///< positions; 0: until interrupted
  double timeout = 0;                      ///< seconds; 0: none
  Way_options way;
};
/// Sends positions as NMEA sentences.
int nmea(const Nmea_options& options);

struct Serve_options {
  std::string listen = "127.0.0.1:8030";
  bool open = false;     ///< shows the page in the browser of the desktop
  bool control = false;  ///< lets clients act
  std::string token;     ///< that each request needs; empty: none
  std::string marks;     ///< a file with landmarks; empty: none
  Way_options way;       ///< empty: the network, else the socket
};
/// Serves the page until it is interrupted.
int serve_page(const Serve_options& options);

struct Doctor_options {
  bool json = false;
  bool list = false;  ///< prints the table of checks instead
  std::string node = "posctl";
};
/// Finds the reason for missing or wrong positions, in at most three seconds. Returns 1 if it finds
/// a fault, 2 if it could not look.
int examine(const Doctor_options& options);

}  // namespace posctl
