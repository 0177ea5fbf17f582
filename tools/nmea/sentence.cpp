#include "tools/nmea/sentence.h"

#include <algorithm>
#include <charconv>

#include "tools/nmea/sentence_parsers.h"

namespace nmea {
namespace {

struct Talker_letters {
  std::string_view letters;
  Talker talker;
};
constexpr std::array<Talker_letters, 12> talkers{{{"GP", Talker::gps},
                                                  {"GN", Talker::combined},
                                                  {"GL", Talker::glonass},
                                                  {"GA", Talker::galileo},
                                                  {"GB", Talker::beidou},
                                                  {"BD", Talker::beidou},
                                                  {"PQ", Talker::beidou},
                                                  {"GQ", Talker::qzss},
                                                  {"QZ", Talker::qzss},
                                                  {"GI", Talker::navic},
                                                  {"IR", Talker::navic},
                                                  {"IM", Talker::indoor}}};

/// Every other talker (IN, EC, II, HE, …) passes on what a receiver or a compass told it. An
/// address that begins with P is a maker's own, except for PQ, which lists satellites.
std::optional<Talker> talker_of(std::string_view address) {
  const auto* found = std::find_if(talkers.begin(), talkers.end(), [&](const auto& candidate) {
    return address.substr(0, 2) == candidate.letters;
  });
  if (found != talkers.end()) return found->talker;
  if (address.starts_with('P')) return std::nullopt;
  return Talker::integrated;
}

using Parse = std::optional<Content> (*)(Fields&, Talker&);

template <std::optional<Content> (*Parse_sentence)(Fields&)>
std::optional<Content> whoever_speaks(Fields& fields, Talker& /*talker*/) {
  return Parse_sentence(fields);
}

struct Type {
  std::string_view letters;
  Parse parse;
};
constexpr std::array<Type, 11> types{{{"GGA", whoever_speaks<detail::parse_gga>},
                                      {"GNS", whoever_speaks<detail::parse_gns>},
                                      {"RMC", whoever_speaks<detail::parse_rmc>},
                                      {"GLL", whoever_speaks<detail::parse_gll>},
                                      {"VTG", whoever_speaks<detail::parse_vtg>},
                                      {"ZDA", whoever_speaks<detail::parse_zda>},
                                      {"GST", whoever_speaks<detail::parse_gst>},
                                      {"HDT", whoever_speaks<detail::parse_hdt>},
                                      {"THS", whoever_speaks<detail::parse_ths>},
                                      {"GSA", detail::parse_gsa},
                                      {"GSV", detail::parse_gsv}}};

/// The part before '*', when the checksum behind it is right.
std::optional<std::string_view> verified(std::string_view line, Counters& counters) {
  const std::size_t star = line.rfind('*');
  if (star == std::string_view::npos) {
    ++counters.checksum_missing;
    return std::nullopt;
  }
  const std::string_view body = line.substr(0, star);
  std::string_view digits = line.substr(star + 1);
  while (digits.ends_with(' '))
    digits.remove_suffix(1);
  unsigned expected = 0;
  const auto [end, error] =
      std::from_chars(digits.data(), digits.data() + digits.size(), expected, 16);
  unsigned sum = 0;
  for (const char c : body)
    sum ^= static_cast<unsigned char>(c);
  if (error != std::errc{} || digits.size() != 2 || end != digits.data() + 2 || expected != sum) {
    ++counters.checksum_mismatch;
    return std::nullopt;
  }
  return body;
}

/// The reader of the sentence that begins with `address`, and its talker.
std::optional<std::pair<Parse, Talker>> reader_of(std::string_view address) {
  if (address == "PASHR") return {{whoever_speaks<detail::parse_attitude>, Talker::integrated}};
  const auto talker = talker_of(address);
  const auto* type = std::find_if(types.begin(), types.end(), [&](const Type& candidate) {
    return address.size() == 5 && address.substr(2) == candidate.letters;
  });
  if (!talker || type == types.end()) return std::nullopt;
  return {{type->parse, *talker}};
}

}  // namespace

std::optional<Sentence> parse(std::string_view line, Counters& counters) {
  const auto body = verified(line, counters);
  if (!body) return std::nullopt;

  Fields fields(*body);
  const auto reader = reader_of(fields[0]);
  if (!reader) {
    ++counters.other_sentences;
    return std::nullopt;
  }
  auto [parse_fields, talker] = *reader;
  auto content = parse_fields(fields, talker);
  if (fields.malformed()) {
    ++counters.malformed_field;
  } else if (!content) {
    ++counters.other_sentences;
  }
  if (!content) return std::nullopt;
  ++counters.sentences;
  return Sentence{talker, std::move(*content)};
}

}  // namespace nmea
