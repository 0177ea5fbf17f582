/// Finds NMEA 0183 sentences in arbitrary bytes: line noise, binary packets and comment lines in
/// between are passed over and counted.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "tools/nmea/sentence_type.h"

namespace nmea {

/// Sentences of one type.
struct Type_counters {
  std::uint64_t understood = 0;  ///< without a bad field
  std::uint64_t ignored = 0;     ///< of those: duplicates, contradictions, positions passed on
  std::uint64_t broken = 0;      ///< with a bad field or checksum
};

/// What was passed over, by reason. Only ever grows.
struct Counters {
  std::uint64_t sentences = 0;        ///< understood
  std::uint64_t other_sentences = 0;  ///< sound, but proprietary, of another talker or type
  std::uint64_t noise_bytes = 0;      ///< outside of any sentence
  std::uint64_t comment_lines = 0;    ///< lines that begin with '#'
  std::uint64_t too_long = 0;         ///< sentences longer than Framer::max_length
  std::uint64_t bad_character = 0;    ///< sentences with a byte outside of printable ASCII
  std::uint64_t incomplete = 0;       ///< sentences cut by the next '$' or by the end of the input
  std::uint64_t checksum_missing = 0;
  std::uint64_t checksum_mismatch = 0;
  std::uint64_t malformed_field = 0;  ///< right checksum, but a field of the wrong form
  std::uint64_t duplicates = 0;       ///< same type and time as one that is there already
  std::uint64_t contradictions = 0;   ///< sentences that the others of the same instant contradict
  std::uint64_t incomplete_groups = 0;  ///< GSV groups of which a sentence is missing
  std::array<Type_counters, sentence_type_names.size()> types{};

  Counters& operator+=(const Counters& other);

  /// Sentences with a right checksum.
  [[nodiscard]] std::uint64_t sound() const { return sentences + other_sentences; }

  /// Faults that a healthy receiver on a healthy line does not cause.
  [[nodiscard]] std::uint64_t errors() const {
    return too_long + bad_character + incomplete + checksum_missing + checksum_mismatch +
           malformed_field + incomplete_groups + contradictions;
  }

  [[nodiscard]] Type_counters& of(Sentence_type type) {
    return types.at(static_cast<std::size_t>(type));
  }
};

class Framer {
 public:
  /// The standard says 82 with '$' and line end; receivers with many decimals send up to about 120.
  static constexpr std::size_t max_length = 160;

  explicit Framer(Counters& counters) : counters_(counters) {}

  /// Consumes from the front of `input` until a sentence is complete. Returns what stands between
  /// '$' and the line end or the next sentence (checksum not verified yet), valid until the next
  /// call. Without a result all of `input` has been consumed.
  [[nodiscard]] std::optional<std::string_view> next(std::span<const std::byte>& input);

  /// The input has ended: what has begun is counted as incomplete.
  void finish();

 private:
  enum class State : std::uint8_t { outside, comment, sentence };

  Counters& counters_;
  std::array<char, max_length> line_{};
  std::size_t length_ = 0;
  State state_ = State::outside;
  bool at_line_start_ = true;
};

}  // namespace nmea
