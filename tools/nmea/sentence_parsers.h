/// One function for each sentence type, for sentence.cpp.
///
/// Each returns nothing for a sentence that cannot be used. It has marked `fields` as malformed
/// then, unless the sentence is sound and of a form that the reader does not know.
#pragma once

#include <optional>

#include "tools/nmea/fields.h"
#include "tools/nmea/satellite_number.h"
#include "tools/nmea/sentence_content.h"

namespace nmea::detail {

std::optional<Content> parse_gga(Fields& fields);
std::optional<Content> parse_gns(Fields& fields);
std::optional<Content> parse_rmc(Fields& fields);
std::optional<Content> parse_gll(Fields& fields);
std::optional<Content> parse_vtg(Fields& fields);
std::optional<Content> parse_pubx(Fields& fields);

std::optional<Content> parse_zda(Fields& fields);
std::optional<Content> parse_gst(Fields& fields);
std::optional<Content> parse_gbs(Fields& fields);
std::optional<Content> parse_hdt(Fields& fields);
std::optional<Content> parse_ths(Fields& fields);
std::optional<Content> parse_attitude(Fields& fields);
std::optional<Content> parse_txt(Fields& fields);

/// `talker` becomes that of the system which the sentence names.
std::optional<Content> parse_gsa(Fields& fields, Talker& talker);
std::optional<Content> parse_gsv(Fields& fields, Talker& talker);

}  // namespace nmea::detail
