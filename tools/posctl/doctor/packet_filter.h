/// The rules of the machine's packet filter that drop packets.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace posctl::doctor {

/// Packets that have to pass.
struct Flow {
  std::string source;  ///< IP address; empty: any
  std::string destination;
  std::uint16_t source_port = 0;  ///< 0: any
  std::uint16_t destination_port = 0;
  bool udp = true;
};

class Packet_filter {
 public:
  /// Reads the rules by nft, which needs the right of an administrator.
  [[nodiscard]] static Packet_filter read();

  /// False if the rules could not be read.
  [[nodiscard]] bool readable() const { return readable_; }
  /// The first rule of an input chain that drops or rejects packets of this flow, such as "chain
  /// input of table inet filter, handle 4". A condition other than on address, port and protocol
  /// counts as fulfilled; a rule that accepts before it does not count.
  struct Rule {
    std::string place;
    std::string cure;
  };
  [[nodiscard]] std::optional<Rule> dropping(const Flow& flow) const;

 private:
  bool readable_ = false;
  std::vector<nlohmann::json> rules_;  ///< of chains that see incoming packets
};

}  // namespace posctl::doctor
