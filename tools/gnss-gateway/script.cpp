#include "tools/gnss-gateway/script.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

#include "binding/timestamp.h"
#include "posService/positioning_records.h"
#include "tools/from_seconds.h"

namespace gateway {
namespace {

using Json = nlohmann::json;
using namespace lumo::services::gnss::datatypes;
using lumo::services::Position_type;

constexpr std::size_t max_line_size = std::size_t{1} << 20U;
/// The latest time of a line in seconds, which fits into nanoseconds.
constexpr double latest = 8e9;
constexpr std::string_view value_type_suffix = "_valueType";

[[noreturn]] void refuse(const std::string& expected, const Json& found) {
  throw std::invalid_argument("expected " + expected + ", found " + found.dump().substr(0, 60));
}

template <class T>
T value_from(const Json& json, const std::string& what) {
  if constexpr (std::is_enum_v<T>) {
    for (const auto& [value, name] : binding::enumerators<T>) {
      if (json == Json(name)) return value;
    }
    // A script may send what the enumeration does not have.
    return static_cast<T>(value_from<std::underlying_type_t<T>>(json, what));
  } else if constexpr (std::is_same_v<T, bool>) {
    if (!json.is_boolean()) refuse("true or false as " + what, json);
    return json.get<bool>();
  } else if constexpr (std::is_floating_point_v<T>) {
    if (!json.is_number()) refuse("a number as " + what, json);
    return json.get<T>();
  } else {
    constexpr auto most = std::numeric_limits<T>::max();
    if (!json.is_number_unsigned() || json.get<std::uint64_t>() > most) {
      refuse("a number from 0 to " + std::to_string(most) + " as " + what, json);
    }
    return static_cast<T>(json.get<std::uint64_t>());
  }
}

/// The names under which posctl prints the members: that of a quality follows its quantity.
template <class Record, class Visit>
void for_each_named(Visit&& visit) {
  std::string quantity;
  binding::for_each_member<Record>([&]<class M>(const M& member) {
    if constexpr (std::is_same_v<typename M::value_type, binding::Value_type>) {
      visit(quantity + std::string(value_type_suffix), member);
    } else {
      quantity = member.name;
      visit(quantity, member);
    }
  });
}

template <class Record>
bool has_member(std::string_view name) {
  bool found = false;
  for_each_named<Record>(
      [&](const std::string& known, const auto&) { found = found || known == name; });
  return found;
}

template <class Record>
void refuse_unknown(const Json& json) {
  using Published = lumo::services::positioning::datatypes::DT_positions_struct;
  for (const auto& [name, value] : json.items()) {
    if (has_member<Record>(name)) continue;
    // Members that only the application's output has.
    if (std::is_same_v<Record, DT_positions_struct> && has_member<Published>(name)) continue;
    throw std::invalid_argument("no member \"" + name.substr(0, 40) +
                                "\" in a record of this field");
  }
}

template <class Record>
Record record_from(const Json& json) {
  if (!json.is_object()) refuse("a record as an object", json);
  refuse_unknown<Record>(json);
  Record record;
  for_each_named<Record>([&]<class M>(const std::string& name, const M& member) {
    const auto found = json.find(name);
    if (found == json.end() || found->is_null()) return;
    record.*member.pointer = value_from<typename M::value_type>(*found, "\"" + name + "\"");
  });
  binding::for_each_quantity<Record>([&](const auto& quantity) {
    const bool told =
        json.contains(std::string(quantity.value.name) + std::string(value_type_suffix));
    if (record.*quantity.value.pointer && !told) {
      record.*quantity.quality.pointer = binding::Value_type::physical_value;
    }
  });
  return record;
}

/// Appends the record, or without a type in `json` one of each type.
template <class Record>
void append(std::vector<Record>& records, Record record, const Json& json) {
  if (json.contains("positionType")) {
    records.push_back(std::move(record));
    return;
  }
  for (const auto type : {Position_type::gnss, Position_type::gnss_dr}) {
    record.positionType = type;
    records.push_back(record);
  }
}

void move_stamp(DT_positions_struct& record, std::chrono::nanoseconds shift) {
  const auto stamp = binding::timestamp_of(record);
  if (!stamp) return;
  const auto moved = binding::Timestamp::of(stamp->since_epoch() + shift);
  record.preciseLocalTimeSeconds = moved.seconds;
  record.preciseLocalTimeNanoseconds = moved.nanoseconds;
}

double time_in(const Json& json, const char* key) {
  const double time = value_from<double>(json.at(key), std::string("\"") + key + "\"");
  if (!(time >= 0 && time <= latest)) refuse("a time in seconds from 0", json.at(key));
  return time;
}

}  // namespace

Script_line::Script_line(std::string_view text) {
  const Json json = Json::parse(text, nullptr, false);
  if (!json.is_object()) throw std::invalid_argument("expected a JSON object");
  for (const auto& [name, value] : json.items()) {
    if (name != "t" && name != "received" && name != "field" && name != "records" &&
        name != "schema" && name != "initial" && name != "ageS") {
      throw std::invalid_argument(
          "no member \"" + name.substr(0, 40) +
          "\" (known are t, received, field, records, schema, initial, ageS)");
    }
  }
  recorded_ = json.contains("received");
  if (recorded_ == json.contains("t")) {
    throw std::invalid_argument("expected a time: \"t\", or \"received\" of a recording");
  }
  time_ = time_in(json, recorded_ ? "received" : "t");
  field_ = json.value("field", Json()).is_string() ? json["field"].get<std::string>() : "";
  const bool made_by_application = field_ == "posMapInfo" || json.contains("initial");
  if (made_by_application) {
    sent_ = false;
    return;
  }
  if (field_ != "positions" && field_ != "positionsQuality" && field_ != "posGnssSatInfos") {
    refuse("a \"field\": positions, positionsQuality or posGnssSatInfos",
           json.value("field", Json()));
  }
  records_ = json.value("records", Json());
  if (!records_.is_array()) refuse("a list as \"records\"", records_);
  if (records_.empty() && field_ != "posGnssSatInfos") refuse("a record in \"records\"", records_);
  Notification all;
  add_to(all, {});  // reports what is wrong with a record
}

void Script_line::add_to(Notification& all, const Context& context) const {
  if (field_ == "positionsQuality") {
    for (const auto& json : records_)
      append(all.quality, record_from<DT_positionsQuality_struct>(json), json);
    return;
  }
  if (field_ == "posGnssSatInfos") {
    auto& satellites = all.satellites.emplace();
    for (const auto& json : records_)
      satellites.push_back(record_from<DT_posGnssSatInfos_struct>(json));
    return;
  }
  for (const auto& json : records_) {
    auto record = record_from<DT_positions_struct>(json);
    if (!json.contains("messageCounter")) record.messageCounter = context.message_counter;
    if (!json.contains("preciseLocalTimeSeconds") &&
        !json.contains("preciseLocalTimeNanoseconds")) {
      binding::set_timestamp(record, binding::Timestamp::of(context.precise_local_time));
    } else if (recorded_) {
      move_stamp(record, context.precise_local_time - tools::from_seconds(time_));
    }
    append(all.positions, record, json);
  }
}

Script::Script(const std::string& path) : path_(path), file_(path) {
  if (!file_) {
    throw std::system_error(errno, std::generic_category(), "cannot read \"" + path_ + "\"");
  }
  if (!std::filesystem::is_regular_file(path_)) {
    throw std::runtime_error("\"" + path_ + "\" is no regular file");
  }
}

void Script::check() {
  bool sent = false;
  while (!next_instant().empty())
    sent = true;
  if (!sent) throw std::runtime_error("\"" + path_ + "\" holds no notification");
  rewind();
}

void Script::fail(const std::string& problem) const {
  throw std::runtime_error("\"" + path_ + "\", line " + std::to_string(number_) + ": " + problem);
}

std::optional<Script::Entry> Script::next() {
  std::string text;
  while (std::getline(file_, text)) {
    ++number_;
    if (text.find_first_not_of(" \t\r") == std::string::npos) continue;
    if (text.size() > max_line_size) fail("longer than 1 MiB");
    try {
      Script_line line(text);
      if (!begin_) {
        recorded_ = line.is_recorded();
        begin_ = recorded_ ? line.time() : 0;
        last_ = *begin_;
      }
      if (line.is_recorded() != recorded_) {
        throw std::invalid_argument("expected the time as \"" +
                                    std::string(recorded_ ? "received" : "t") +
                                    "\", as in the lines before");
      }
      if (line.time() < last_) throw std::invalid_argument("the time goes backwards");
      last_ = line.time();
      if (line.is_sent()) return Entry{tools::from_seconds(last_ - *begin_), std::move(line)};
    } catch (const std::invalid_argument& error) {
      fail(error.what());
    }
  }
  if (file_.bad()) fail("cannot be read");
  return std::nullopt;
}

std::vector<Script::Entry> Script::next_instant() {
  std::vector<Entry> lines;
  for (auto line = ahead_ ? std::exchange(ahead_, std::nullopt) : next(); line; line = next()) {
    const bool joins = std::ranges::all_of(lines, [&](const Entry& other) {
      return other.time == line->time && other.line.field() != line->line.field();
    });
    if (!joins) {
      ahead_ = std::move(line);
      break;
    }
    lines.push_back(std::move(*line));
  }
  return lines;
}

void Script::rewind() {
  ahead_.reset();
  file_.clear();
  file_.seekg(0);
  number_ = 0;
  begin_.reset();
}

}  // namespace gateway
