/// Groups sentences of one instant into a Fix.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>

#include "tools/nmea/fix.h"
#include "tools/nmea/framer.h"
#include "tools/nmea/merging.h"
#include "tools/nmea/sentence.h"

namespace nmea {

namespace detail {

/// A GSV group that is coming in.
struct Pending_view {
  View view;
  unsigned total = 0;
  unsigned next = 0;    ///< number of the sentence that must come now; 0: none is coming in
  bool broken = false;  ///< a sentence is missing: the rest is only followed to its end
};

struct Epoch {
  std::optional<std::chrono::nanoseconds> time_of_day;
  Navigation_sentences navigation;
  Sky sky;

  // Once its position has been returned, in a pause of the receiver:
  bool returned = false;
  bool used_returned = false;   ///< with the satellites in use
  bool views_returned = false;  ///< with the satellites in view
  bool grown = false;           ///< satellites have come since

  /// True if a sentence states the validity of the position. An instant without one is not sent.
  [[nodiscard]] bool speaks_of_validity() const;
  /// Bit set of the navigation sentences.
  [[nodiscard]] unsigned types() const;
};

}  // namespace detail

/// The length of a receiver's silence. After a brief one its instant is usually complete, after a
/// lasting one certainly.
enum class Silence : std::uint8_t { brief, lasting };

/// Joins the sentences of one instant into a fix. An instant begins with its first navigation
/// sentence with a time, and ends with the first one with another time; pauses do not end it.
/// Sentences without a time (GSA, GSV, VTG; GGA and RMC before the receiver knows the time) belong
/// to the present instant.
///
/// A second sentence of a type for the same time is a duplicate: the first one stands. Only the
/// combined solution (GN) replaces that of one system.
///
/// ZDA, GST, GBS, HDT, THS, PASHR and TXT neither begin nor end an instant: they add to it.
///
/// A sentence that contradicts the others of its instant is counted and adds nothing.
///
/// While a receiver (GP, GN, …) sends positions, those of a device that passes them on (IN, EC, II,
/// …) are duplicates.
class Epoch_builder {
 public:
  explicit Epoch_builder(Counters& counters) : counters_(counters) {}

  /// Returns the fix that `sentence` has ended by beginning the next one.
  [[nodiscard]] std::optional<Fix> add(const Sentence& sentence);

  /// Returns the fix of the present instant, once. After a brief silence it waits for the
  /// navigation sentences that the last instant had; after a lasting one it does not. The instant
  /// goes on: satellites that follow return a supplement at the next pause.
  [[nodiscard]] std::optional<Fix> pause(Silence silence);

  /// Ends the present instant, at the end of the input.
  [[nodiscard]] std::optional<Fix> finish();

 private:
  // A peer cannot make one instant larger than this.
  static constexpr std::size_t max_views = 32;
  static constexpr std::size_t max_used = 128;

  [[nodiscard]] bool is_overshadowed(const Sentence& sentence);
  [[nodiscard]] bool begins_instant(const Navigation& sentence, Talker talker) const;
  std::optional<Fix> add_navigation(const Navigation& sentence, Talker talker);
  void add_clock(const Clock& sentence);
  void add_accuracy(const Accuracy& sentence, Sentence_type type);
  void add_attitude(const Attitude& sentence);
  void add_active(const Active_satellites& sentence);
  void add_view(const Satellites_in_view& sentence, Talker talker);
  [[nodiscard]] detail::Sky& sky_for(bool kind_returned);

  std::optional<Fix> end_instant();
  [[nodiscard]] Fix make_fix();
  void judge(const std::optional<std::chrono::year_month_day>& date, const Fix& fix);
  void count_contradiction(Sentence_type type);
  void take_supplements(Fix& fix);
  void resolve_date(Fix& fix, std::optional<std::chrono::year_month_day> date);

  Counters& counters_;
  std::optional<detail::Epoch> epoch_;
  detail::Pending_view pending_;
  detail::Sky next_sky_;      ///< satellites of the instant that has not begun yet
  Attitude attitude_;         ///< the newest since the last fix
  unsigned usual_types_ = 0;  ///< bit set of the last instant's navigation sentences
  /// The last two: one of the next instant may come before this instant's end.
  std::array<std::optional<Accuracy>, 2> accuracies_;           ///< of GST
  std::array<std::optional<Accuracy>, 2> expected_accuracies_;  ///< of GBS
  std::optional<Clock> clock_;                                  ///< the last ZDA
  std::optional<Antenna> antenna_;
  /// Positions that were passed on since the last of a receiver itself.
  unsigned passed_on_ = receiver_gone;
  static constexpr unsigned receiver_gone = 64;
  /// The newest instant whose date is known.
  std::optional<Utc_time> last_utc_;
};

}  // namespace nmea
