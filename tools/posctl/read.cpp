#include <algorithm>
#include <cctype>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "diagnosisService/data_identifiers.h"
#include "tools/command.h"
#include "tools/near_name.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/connect.h"
#include "tools/posctl/explain.h"

namespace posctl {
namespace {

namespace diag = lumo::services::diag;

/// "02 03 03", the payload of the answer.
template <class Output>
std::string raw_bytes(const Output& output) {
  std::string text;
  std::vector<std::byte> bytes;
  binding::encode(output, bytes);
  for (const std::byte byte : bytes) {
    constexpr std::string_view digits = "0123456789abcdef";
    const auto value = std::to_integer<unsigned>(byte);
    if (!text.empty()) text += ' ';
    text += digits[value >> 4U];
    text += digits[value & 0xFU];
  }
  return text;
}

std::string_view unit_of(std::string_view name) {
  if (name == "latitude" || name == "longitude") return "deg";
  if (name == "altitude") return "m";
  return name == "timeOfDay" ? "s" : "";
}

/// Statuses by name, faults with the sentence of each, positions with units.
template <class Output>
Json decoded(const Output& output) {
  Json values = explain(output);
  if constexpr (requires { Output::fault; }) {
    for (auto& fault : values["faults"])
      fault["text"] = fault_text(Output::fault, fault);
  } else if constexpr (requires { Output::group; }) {
    for (auto& value : values)
      value = status_name(value.template get<std::uint8_t>());
  }
  return values;
}

template <class Interface>
Json read(Deadline deadline) {
  const auto proxy = connect<diag::Data_identifier_proxy<Interface>>(Interface::name, deadline);
  const auto output = result_of(proxy->Read({}), Interface::Read.name, deadline);
  Json json{{"schema", 1},
            {"did", diag::identifier_of(Interface::name)},
            {"name", mw::com::cpp_binding::short_name(Interface::name)},
            {"raw", raw_bytes(output)},
            {"values", decoded(output)}};
  Json units = Json::object();
  for (const auto& [name, value] : json["values"].items()) {
    if (const auto unit = unit_of(name); !unit.empty()) units[name] = unit;
  }
  if (!units.empty()) json["units"] = std::move(units);
  return json;
}

struct Readable_identifier {
  std::string_view did;  ///< such as "d_14a0"
  Json (*read)(Deadline);
};

std::vector<Readable_identifier> entries() {
  std::vector<Readable_identifier> all;
  diag::for_each_interface<diag::Data_identifiers>([&]<class Interface>() {
    all.push_back({diag::identifier_of(Interface::name), read<Interface>});
  });
  return all;
}

/// "d_14a0", "0x14A0" and "14a0" name the same.
std::string normalized(std::string did) {
  std::transform(did.begin(), did.end(), did.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  for (const std::string_view prefix : {"d_", "0x"}) {
    if (did.starts_with(prefix)) did.erase(0, prefix.size());
  }
  return "d_" + did;
}

std::vector<Readable_identifier> wanted(const std::string& name) {
  auto all = entries();
  if (name == "all") return all;
  const auto found = std::ranges::find(all, normalized(name), &Readable_identifier::did);
  if (found != all.end()) return {*found};
  std::string known;
  std::vector<std::string_view> names;
  names.reserve(all.size());
  for (const Readable_identifier& one : all) {
    known.append(known.empty() ? "" : ", ").append(one.did);
    names.push_back(one.did);
  }
  throw tools::Usage_error("there is no data identifier \"" + name + "\"; expected all or one of " +
                           known + tools::did_you_mean(normalized(name), names));
}

std::string text_of(const Json& answer) {
  std::string text =
      answer["did"].get<std::string>() + " " + answer["name"].get<std::string>() + "\n";
  text += "  raw: " + answer["raw"].get<std::string>() + "\n";
  for (const auto& [name, value] : answer["values"].items()) {
    if (value.is_array()) {
      for (const auto& fault : value)
        text += "  " + fault["text"].get<std::string>() + "\n";
      if (value.empty()) text += "  none\n";
      continue;
    }
    text += "  " + name + ": ";
    text += value.is_null()     ? "not valid"
            : value.is_string() ? value.get<std::string>()
                                : value.dump();
    if (!value.is_null() && !unit_of(name).empty()) text.append(" ").append(unit_of(name));
    text += "\n";
  }
  return text;
}

}  // namespace

int read(const Read_options& options) {
  const auto which = wanted(options.data_identifier);
  const Json answers = on_the_way(options.way, [&] {
    const auto deadline = deadline_in(options.timeout);
    Json all = Json::array();
    for (const Readable_identifier& entry : which)
      all.push_back(entry.read(deadline));
    return all;
  });
  std::string text;
  for (const auto& answer : answers)
    text += options.json ? answer.dump() + "\n" : text_of(answer);
  tools::write_output(text);
  return 0;
}

}  // namespace posctl
