/// The programs of this system that run on the machine, as /proc shows them.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace posctl::doctor {

enum class Role : std::uint8_t { application, source, tool };

struct Program {
  pid_t pid = 0;
  Role role = Role::tool;
  std::string name;
  char state = '?';  ///< as in /proc/<pid>/stat; T: stopped by a signal
  uid_t user = 0;
  std::vector<gid_t> groups;  ///< supplementary ones included
  /// Empty if it cannot be read: the program of another user.
  std::optional<std::map<std::string, std::string>> environment;
  std::string manifest;                ///< file name; empty: the built-in one, or not known
  std::uint64_t descriptors = 0;       ///< open ones; 0: not known
  std::uint64_t descriptor_limit = 0;  ///< 0: not known
  std::uint64_t process_limit = 0;     ///< of the user, threads included; 0: not known

  [[nodiscard]] const std::string* variable(const std::string& key) const;
  [[nodiscard]] bool stopped() const { return state == 'T' || state == 't'; }
  /// "gnss-gateway (pid 17)".
  [[nodiscard]] std::string label() const { return name + " (pid " + std::to_string(pid) + ")"; }
};

/// Those in the network namespace of this process, without this process.
[[nodiscard]] std::vector<Program> find_programs();

/// The owner of a UDP socket, such as "python3 (pid 17)".
struct Socket_owner {
  pid_t pid = 0;  ///< 0: not visible
  std::string label;
};
/// The process with a UDP socket at "address:port", as /proc/net/udp writes an IPv4 address.
[[nodiscard]] std::optional<Socket_owner> owner_of_udp_port(std::uint32_t ipv4, std::uint16_t port);

/// Datagrams that the kernel has dropped because the buffer of a UDP socket of this IPv4 address
/// was full.
[[nodiscard]] std::uint64_t datagrams_dropped_at(std::uint32_t ipv4);

/// The output of a command; empty after an error or a second.
[[nodiscard]] std::string output_of(const std::vector<std::string>& command);

}  // namespace posctl::doctor
