/// Merges the sentences of one instant into a fix.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "tools/nmea/fix.h"
#include "tools/nmea/sentence_content.h"

namespace nmea::detail {

struct View {
  Talker talker{};
  std::uint8_t signal = 0;  ///< of the group's first sentence
  bool several_signals = false;
  unsigned in_view = 0;
  std::vector<Satellite> satellites;
};

/// The satellites of the GSA and GSV sentences of one instant.
struct Sky {
  std::vector<Satellite_number> used;
  bool used_reported = false;
  std::optional<Fix_dimension> dimension;
  std::optional<double> pdop;
  std::optional<double> hdop;
  std::optional<double> vdop;
  std::vector<View> views;
};

struct Reported_navigation {
  Navigation sentence;
  Talker talker{};
  bool believed = true;  ///< false: the others of the instant contradict it
};
using Navigation_sentences = std::array<std::optional<Reported_navigation>, navigation_type_count>;

/// Fills an absent value.
template <typename T>
void complete(std::optional<T>& target, const std::optional<T>& source) {
  if (!target) target = source;
}

/// Marks the sentences whose position, speed, course or altitude the majority of the others of the
/// instant contradicts. With two against one another, the order of Navigation_type decides.
void judge(Navigation_sentences& sentences);

/// Call it in the order in which the sentences are believed.
void take(const Navigation& navigation, Fix& fix);

/// Call it after all navigation sentences.
void take(const Sky& sky, Fix& fix);

}  // namespace nmea::detail
