/// Lists the sentence types of an NMEA 0183 stream and the record members that it never carries.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tools/nmea/epoch_builder.h"
#include "tools/nmea/fix.h"
#include "tools/nmea/framer.h"

namespace gateway {

class Explanation {
 public:
  Explanation() : framer_(counters_), builder_(counters_) {}
  Explanation(const Explanation&) = delete;
  Explanation& operator=(const Explanation&) = delete;

  void feed(std::span<const std::byte> bytes);
  /// The stream has ended.
  void finish();

  [[nodiscard]] nlohmann::ordered_json json() const;
  [[nodiscard]] std::string text() const;

 private:
  struct Row {
    std::string type;
    std::uint64_t used = 0;
    std::uint64_t ignored = 0;
    std::uint64_t broken = 0;
  };
  struct Silence {
    std::string_view member;
    std::string_view sentences;  ///< the types that carry it
  };

  void take(const nmea::Fix& fix);
  [[nodiscard]] std::vector<Row> rows() const;
  [[nodiscard]] std::vector<Silence> silences() const;

  /// A peer cannot make the list of unknown types longer than this.
  static constexpr std::size_t max_others = 64;

  nmea::Counters counters_;
  nmea::Framer framer_;
  nmea::Epoch_builder builder_;
  std::map<std::string, std::uint64_t, std::less<>> others_;
  std::uint64_t fixes_ = 0;
  std::uint64_t without_fix_ = 0;
  std::set<std::string_view> reported_;  ///< names of the records' members
};

}  // namespace gateway
