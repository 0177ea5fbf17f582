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
  Sentence_type type;
  Parse parse;
};
constexpr std::array<Type, 13> types{{{Sentence_type::gga, whoever_speaks<detail::parse_gga>},
                                      {Sentence_type::gns, whoever_speaks<detail::parse_gns>},
                                      {Sentence_type::rmc, whoever_speaks<detail::parse_rmc>},
                                      {Sentence_type::gll, whoever_speaks<detail::parse_gll>},
                                      {Sentence_type::vtg, whoever_speaks<detail::parse_vtg>},
                                      {Sentence_type::zda, whoever_speaks<detail::parse_zda>},
                                      {Sentence_type::gst, whoever_speaks<detail::parse_gst>},
                                      {Sentence_type::gbs, whoever_speaks<detail::parse_gbs>},
                                      {Sentence_type::hdt, whoever_speaks<detail::parse_hdt>},
                                      {Sentence_type::ths, whoever_speaks<detail::parse_ths>},
                                      {Sentence_type::gsa, detail::parse_gsa},
                                      {Sentence_type::gsv, detail::parse_gsv},
                                      {Sentence_type::txt, whoever_speaks<detail::parse_txt>}}};

constexpr std::string_view name_of(Sentence_type type) {
  return sentence_type_names.at(static_cast<std::size_t>(type));
}

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

struct Known {
  Sentence_type type;
  Parse parse;
  Talker talker;
};

std::optional<Known> known(const Fields& fields) {
  const std::string_view address = fields[0];
  if (address == "PASHR") {
    return Known{Sentence_type::pashr, whoever_speaks<detail::parse_attitude>, Talker::integrated};
  }
  if (address == "PUBX" && fields[1] == "00") {
    return Known{Sentence_type::pubx, whoever_speaks<detail::parse_pubx>, Talker::combined};
  }
  const auto talker = talker_of(address);
  const auto* type = std::find_if(types.begin(), types.end(), [&](const Type& candidate) {
    return address.size() == 5 && address.substr(2) == name_of(candidate.type);
  });
  if (!talker || type == types.end()) return std::nullopt;
  return Known{type->type, type->parse, *talker};
}

}  // namespace

std::optional<Sentence> parse(std::string_view line, Counters& counters) {
  const auto body = verified(line, counters);
  Fields fields(body ? *body : line.substr(0, line.rfind('*')));
  auto reader = known(fields);
  if (!body) {
    if (reader) ++counters.of(reader->type).broken;
    return std::nullopt;
  }
  if (!reader) {
    ++counters.other_sentences;
    return std::nullopt;
  }
  auto content = reader->parse(fields, reader->talker);
  if (fields.malformed()) {
    ++counters.malformed_field;
    ++counters.of(reader->type).broken;
  } else if (!content) {
    ++counters.other_sentences;
  } else {
    ++counters.of(reader->type).understood;
  }
  if (!content) return std::nullopt;
  ++counters.sentences;
  return Sentence{reader->type, reader->talker, *content};
}

}  // namespace nmea
