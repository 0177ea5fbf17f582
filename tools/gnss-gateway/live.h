/// Reads a receiver live: each sentence when it arrives.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/gnss-gateway/fix_publisher.h"
#include "tools/gnss-gateway/input.h"
#include "tools/gnss-gateway/output.h"
#include "tools/gnss-gateway/source_options.h"
#include "tools/nmea/reader.h"

namespace gateway {

/// Tries one rate of a serial device after the other until sentences with right checksums come.
class Rate_search {
 public:
  using Time = std::chrono::steady_clock::time_point;

  /// Begins with the present rate of the device.
  void begin(Input& input, std::uint64_t sound_sentences, Time now);
  /// Returns the rate once it is found.
  std::optional<unsigned> look(Input& input, std::uint64_t sound_sentences, Time now);
  /// The latest time of the next look(); Time::max() while no search is under way.
  [[nodiscard]] Time due() const { return due_; }

 private:
  std::vector<unsigned> rates_;
  std::size_t at_ = 0;
  std::uint64_t sound_before_ = 0;
  Time due_ = Time::max();
};

class Live {
 public:
  Live(const Nmea_options& options, Input& input, Output& output);

  /// Returns at the end of the input or when the output is done. Throws std::runtime_error when a
  /// device disappears, or when the input ends without a sentence.
  [[nodiscard]] Source_result run();

 private:
  using Time = std::chrono::steady_clock::time_point;

  void begin();
  [[nodiscard]] bool take_bytes();
  void handle_time(Time now);
  [[nodiscard]] Time next_due() const;
  [[nodiscard]] bool await_device();
  [[nodiscard]] std::string name() const { return "\"" + input_.path() + "\""; }

  const Nmea_options& options_;
  Input& input_;
  Output& output_;
  Fix_publisher publisher_;
  nmea::Reader reader_;
  const nmea::Reader::Sink sink_;
  Rate_search search_;
  Time received_{};    ///< time of the newest byte, or of the opening
  Time understood_{};  ///< the same for a sentence with a right checksum
  std::uint64_t sound_ = 0;
  int silences_ = 0;     ///< silences handled since the newest byte: brief, lasting
  bool warned_ = false;  ///< since the newest sentence
};

}  // namespace gateway
