#include "tools/gnss-gateway/explanation.h"

#include <algorithm>
#include <array>
#include <iomanip>
#include <sstream>

#include "tools/gnss-gateway/notification.h"
#include "tools/gnss-gateway/reasons.h"
#include "tools/nmea/sentence.h"

namespace gateway {
namespace {

using namespace lumo::services::gnss::datatypes;

struct Teller {
  std::string_view member;
  std::string_view sentences;
};
/// Members that no sentence can tell are left out. `date` is none of a record, but without it the
/// midnight of a recording is unknown.
constexpr std::array<Teller, 22> tellers{{
    {"LAT", "GGA, GNS, RMC, GLL, PUBX,00"},
    {"LON", "GGA, GNS, RMC, GLL, PUBX,00"},
    {"altitudeMeanSeaLevel", "GGA, GNS"},
    {"altitudeWGS84", "GGA, GNS, PUBX,00"},
    {"yawAngle", "HDT, THS, PASHR; in motion RMC, VTG, PUBX,00"},
    {"speed2D", "RMC, VTG, PUBX,00"},
    {"speedVertical", "PUBX,00"},
    {"courseOverGround", "RMC, VTG, PUBX,00"},
    {"pitchAngle", "PASHR"},
    {"rollAngle", "PASHR"},
    {"accuracyHorizontal", "GST, GBS, PUBX,00"},
    {"accuracyVertical", "GST, GBS, PUBX,00"},
    {"accuracyYawAngle", "PASHR"},
    {"ageOfDifferentialData", "GGA, GNS, PUBX,00, with corrections"},
    {"hDOP", "GGA, GNS, GSA, PUBX,00"},
    {"pDOP", "GSA"},
    {"vDOP", "GSA, PUBX,00"},
    {"satsInView", "GSV"},
    {"satsInUse", "GGA, GNS, GSA, PUBX,00"},
    {"satsTracked", "GSV"},
    {"statusGNSSAntenna", "TXT"},
    {"date", "RMC, ZDA"},
}};

}  // namespace

void Explanation::feed(std::span<const std::byte> bytes) {
  while (const auto line = framer_.next(bytes)) {
    const auto others = counters_.other_sentences;
    const auto sentence = nmea::parse(*line, counters_);
    if (counters_.other_sentences != others) {
      const auto address = line->substr(0, line->find_first_of(",*"));
      if (others_.size() < max_others || others_.contains(address)) ++others_[std::string(address)];
    }
    if (!sentence) continue;
    if (const auto fix = builder_.add(*sentence)) take(*fix);
  }
}

void Explanation::finish() {
  framer_.finish();
  if (const auto fix = builder_.finish()) take(*fix);
}

void Explanation::take(const nmea::Fix& fix) {
  ++(fix.valid ? fixes_ : without_fix_);
  if (fix.utc) reported_.insert("date");
  const auto notification = to_notification(fix, {});
  const auto note = [&]<class Record>(const Record& record) {
    binding::for_each_quantity<Record>([&](const auto& quantity) {
      if (record.*quantity.value.pointer) reported_.insert(quantity.value.name);
    });
  };
  note(notification.positions.at(0));
  note(notification.quality.at(0));
  if (fix.antenna) reported_.insert("statusGNSSAntenna");
}

std::vector<Explanation::Row> Explanation::rows() const {
  std::vector<Row> result;
  for (std::size_t index = 0; index < counters_.types.size(); ++index) {
    const auto& type = counters_.types.at(index);
    if (type.understood + type.broken == 0) continue;
    const auto ignored = std::min(type.ignored, type.understood);
    result.push_back({std::string(nmea::sentence_type_names.at(index)), type.understood - ignored,
                      ignored, type.broken});
  }
  std::uint64_t listed = 0;
  for (const auto& [address, count] : others_) {
    result.push_back({address, 0, count, 0});
    listed += count;
  }
  if (listed < counters_.other_sentences) {
    result.push_back({"others", 0, counters_.other_sentences - listed, 0});
  }
  return result;
}

std::vector<Explanation::Silence> Explanation::silences() const {
  std::vector<Silence> result;
  for (const auto& teller : tellers) {
    if (!reported_.contains(teller.member)) result.push_back({teller.member, teller.sentences});
  }
  return result;
}

nlohmann::ordered_json Explanation::json() const {
  nlohmann::ordered_json json;
  json["fixes"] = fixes_;
  json["withoutFix"] = without_fix_;
  auto& sentences = json["sentences"] = nlohmann::ordered_json::object();
  for (const auto& row : rows()) {
    sentences[row.type] = {{"used", row.used}, {"ignored", row.ignored}, {"broken", row.broken}};
  }
  json["noiseBytes"] = counters_.noise_bytes;
  json["commentLines"] = counters_.comment_lines;
  json["duplicates"] = counters_.duplicates;
  json["errors"] = counters_.errors();
  for (const auto& reason : reasons) {
    json["errorsByReason"][reason.name] = counters_.*reason.counter;
  }
  auto& never = json["neverSaid"] = nlohmann::ordered_json::object();
  for (const auto& silence : silences())
    never[std::string(silence.member)] = silence.sentences;
  return json;
}

std::string Explanation::text() const {
  std::ostringstream out;
  const auto line = [&](const auto& type, const auto& used, const auto& ignored,
                        const auto& broken) {
    out << std::left << std::setw(10) << type << std::right << std::setw(8) << used << std::setw(9)
        << ignored << std::setw(8) << broken << "\n";
  };
  line("sentence", "used", "ignored", "broken");
  for (const auto& row : rows())
    line(row.type, row.used, row.ignored, row.broken);
  out << fixes_ << " instants with a fix, " << without_fix_ << " without; " << counters_.duplicates
      << " duplicates, " << counters_.errors() << " errors, " << counters_.noise_bytes
      << " bytes of noise\n";
  for (const auto& reason : reasons) {
    if (const auto count = counters_.*reason.counter; count > 0) {
      out << "  " << reason.name << ": " << count << "\n";
    }
  }
  if (const auto never = silences(); !never.empty()) {
    out << "never said:\n";
    for (const auto& silence : never)
      out << "  " << silence.member << " (" << silence.sentences << ")\n";
  }
  return out.str();
}

}  // namespace gateway
