/// An NMEA 0183 sentence that the reader understands.
#pragma once

#include <optional>
#include <string_view>

#include "tools/nmea/framer.h"
#include "tools/nmea/satellite_number.h"
#include "tools/nmea/sentence_content.h"
#include "tools/nmea/sentence_type.h"

namespace nmea {

struct Sentence {
  Sentence_type type{};
  Talker talker{};
  Content content;
};

/// Verifies the checksum of `line` (as Framer::next() returns it) and reads its fields. Nothing
/// when it is faulty or not one of ours: then the reason is counted. A bad field is absent and
/// counted; only one that says where the sentence belongs (its time, its number in a group) costs
/// the whole sentence.
[[nodiscard]] std::optional<Sentence> parse(std::string_view line, Counters& counters);

}  // namespace nmea
