/// Groups sentences of one instant into a Fix.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "tools/nmea/Fix.h"
#include "tools/nmea/Framer.h"
#include "tools/nmea/Sentence.h"

namespace nmea {

namespace detail {

struct View {
  Talker talker{};
  std::uint8_t signal = 0;
  unsigned in_view = 0;
  std::vector<Satellite> satellites;
};
/// A GSV group that is coming in.
struct Pending_view {
  View view;
  unsigned total = 0;
  unsigned next = 0;    ///< number of the sentence that must come now; 0: none is coming in
  bool broken = false;  ///< a sentence is missing: the rest is only followed to its end
};
struct Epoch {
  std::optional<std::chrono::nanoseconds> time_of_day;
  std::array<std::optional<Navigation>, navigation_type_count> navigation;
  std::vector<Active_satellites::Used> used;
  bool used_told = false;
  std::optional<Fix_dimension> dimension;
  std::optional<double> pdop;
  std::optional<double> hdop;
  std::optional<double> vdop;
  std::vector<View> views;
};

}  // namespace detail

/// An instant lasts from its first sentence with a time until the first sentence with another one.
/// Sentences without a time (GSA, GSV, VTG; GGA and RMC before the receiver knows the time) belong
/// to the instant that is being told. A second sentence of a type for the same time is a duplicate:
/// the first stands, unless the second tells the combined solution (GN) where the first told one
/// system's.
class Epoch_builder {
 public:
  explicit Epoch_builder(Counters& counters) : counters_(counters) {}

  /// Returns the fix that `sentence` has ended by beginning the next one.
  [[nodiscard]] std::optional<Fix> add(const Sentence& sentence);

  /// Ends the instant being told: at the end of the input, or when a receiver has fallen silent.
  [[nodiscard]] std::optional<Fix> finish();

 private:
  /// A peer cannot make one instant larger than this.
  static constexpr std::size_t max_views = 32;
  static constexpr std::size_t max_used = 128;

  std::optional<Fix> add_navigation(const Navigation& sentence);
  void add_active(const Active_satellites& sentence);
  void add_view(const Satellites_in_view& sentence);
  void resolve_date(Fix& fix);
  static void merge_satellites(const detail::Epoch& epoch, Fix& fix);

  Counters& counters_;
  std::optional<detail::Epoch> epoch_;
  detail::Pending_view pending_;
  /// The newest instant whose date is known.
  std::optional<Utc_time> last_utc_;
};

}  // namespace nmea
