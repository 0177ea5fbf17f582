/// The types whose codecs are fuzzed, in the order by which the first byte of an input names them.
#pragma once

#include <array>
#include <boost/optional.hpp>
#include <map>
#include <string>
#include <vector>

#include "clients/gnss_records.h"
#include "clients/time_records.h"
#include "diagnosisService/DiagnosticMonitor.h"
#include "diagnosisService/data_identifiers.h"
#include "fuzz/codec_promises.h"
#include "posService/positioning_records.h"

namespace fuzz {

struct Pair {
  std::uint8_t first = 0;
  std::uint16_t second = 0;
};

/// The kinds of member that no service has yet, so that the codec is covered whole.
struct Everything {
  boost::optional<bool> truth;
  boost::optional<std::int64_t> number;
  boost::optional<std::string> text;
  boost::optional<std::vector<std::uint16_t>> numbers;
  boost::optional<std::vector<std::string>> texts;
  boost::optional<std::array<std::uint32_t, 3>> three;
  boost::optional<std::map<std::string, std::string>> map;
  boost::optional<Pair> plain;
  boost::optional<lumo::services::positioning::datatypes::DT_posMapInfo_struct> record;
  boost::optional<std::vector<Pair>> records;
};

}  // namespace fuzz

template <>
struct binding::Description<fuzz::Pair> {
  static constexpr std::string_view name = "fuzz::Pair";
  static constexpr auto entries =
      std::tuple{plain("first", &fuzz::Pair::first), plain("second", &fuzz::Pair::second)};
};

template <>
struct binding::Description<fuzz::Everything> {
  using Record = fuzz::Everything;
  static constexpr std::string_view name = "fuzz::Everything";
  static constexpr auto entries =
      std::tuple{member(0, "truth", &Record::truth),   member(1, "number", &Record::number),
                 member(2, "text", &Record::text),     member(3, "numbers", &Record::numbers),
                 member(4, "texts", &Record::texts),   member(5, "three", &Record::three),
                 member(6, "map", &Record::map),       member(7, "plain", &Record::plain),
                 member(8, "record", &Record::record), member(0xFFF, "records", &Record::records)};
};

namespace fuzz {

using Record_types =
    Codec_types<std::vector<lumo::services::gnss::datatypes::DT_positions_struct>,
                std::vector<lumo::services::gnss::datatypes::DT_positionsQuality_struct>,
                std::vector<lumo::services::gnss::datatypes::DT_posGnssSatInfos_struct>,
                std::vector<lumo::services::time::datatypes::DT_times_struct>,
                std::vector<lumo::services::time::datatypes::DT_timeSettings_struct>,
                std::vector<lumo::services::positioning::datatypes::DT_positions_struct>,
                std::vector<lumo::services::positioning::datatypes::DT_posMapInfo_struct>,
                lumo::services::gnss::datatypes::DT_positions_struct,
                lumo::services::time::datatypes::DT_timeSettings_struct,
                Everything,
                std::vector<Everything>>;

using String_types =
    Codec_types<lumo::services::diag::Meta_info, std::string, std::vector<std::string>>;

template <class List>
struct Outputs_of;
template <class... Interfaces>
struct Outputs_of<std::tuple<Interfaces...>> {
  template <class... More>
  using And = Codec_types<typename Interfaces::Output..., More...>;
};
using Diagnostic_types =
    Outputs_of<lumo::services::diag::Data_identifiers>::And<mw::dm::dem::InitMonitorReason,
                                                            mw::dm::dem::MonitorActionType>;

}  // namespace fuzz
