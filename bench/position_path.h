/// The application's parts on the path of a position, connected as the application connects them,
/// and what to send down that path.
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

#include "app/conversion.h"
#include "ara/log/logger.h"
#include "bench/quiet_runtime.h"
#include "binding/codec.h"
#include "binding/position_ages.h"
#include "clients/gnssClientImpl.h"
#include "clients/gnss_records.h"
#include "diagnosisService/diagnosisServiceImpl.h"
#include "posService/posServiceImpl.h"

namespace bench {

namespace gnss = lumo::services::gnss::datatypes;

inline gnss::DT_positions_struct sample(std::uint32_t type) {
  gnss::DT_positions_struct position;
  binding::for_each_quantity<gnss::DT_positions_struct>([&](const auto& quantity) {
    using Value = typename std::remove_cvref_t<decltype(quantity.value)>::value_type;
    position.*quantity.value.pointer = static_cast<Value>(12.3456789 + quantity.value.id);
    position.*quantity.quality.pointer = binding::Value_type::physical_value;
  });
  position.positionType = lumo::services::Position_type{type};
  position.messageCounter = 7;
  return position;
}

/// The first `members` of them are there.
inline gnss::DT_positions_struct sparse_sample(std::size_t members) {
  auto position = sample(2);
  std::size_t number = 0;
  binding::for_each_member<gnss::DT_positions_struct>([&](const auto& member) {
    if (number++ >= members) position.*member.pointer = boost::none;
  });
  return position;
}

inline std::vector<gnss::DT_posGnssSatInfos_struct> satellites(std::size_t count) {
  gnss::DT_posGnssSatInfos_struct satellite;
  binding::for_each_member<gnss::DT_posGnssSatInfos_struct>([&]<class M>(const M& member) {
    satellite.*member.pointer = static_cast<typename M::value_type>(4);
  });
  return {count, satellite};
}

inline binding::Buffer notification(std::size_t samples) {
  std::vector<gnss::DT_positions_struct> positions;
  for (std::size_t i = 0; i < samples; ++i)
    positions.push_back(sample(i % 2 == 0 ? 1 : 2));
  binding::Buffer payload;
  binding::encode(positions, payload);
  return payload;
}

/// The application's parts on that path, connected as it connects them.
class Position_path {
 public:
  explicit Position_path(bool log_received) {
    gnss_.set_received_gnss_data_logging(log_received);
    gnss_.set_ignore_gnss_timestamps(true);
    gnss_.set_use_gnss_dr(true);
    gnss_.set_position_ages(ages_);
    gnss_.set_position_callback([this](const gnss::DT_positions_struct& position) {
      ara::log::LogInfo() << "Sending "
                          << "GNSS-DR"
                          << " input position as POS output DR position.";
      if (service_.send_dr(to_positioning(position, {2, 1, 2, 2, 2, 1, 0}))) {
        ages_.sent(timeutils::instance().now());
      }
      diagnosis_.data_received(0x83D104);
      diagnosis_.data_received(0x83D101);
    });
    service_.set_always_send_all_valid_positions(true);
    service_.set_mm_new_position_calculation_interval_ms(1000);
    service_.init();
    gnss_.init();
    runtime_.find({1});
  }
  ~Position_path() { gnss_.stop(); }

  void drive(const binding::Buffer& payload, const char* element = "positions") {
    const mw::com::Handled_arrival arrival(arrival_);
    runtime_.notify(element, payload);
  }
  [[nodiscard]] std::uint64_t published() const { return runtime_.published(); }

 private:
  Quiet_runtime runtime_;
  binding::Position_ages ages_;
  diagnosisService::diagnosisServiceImpl diagnosis_;
  posServiceImpl service_{diagnosis_};
  /// As old as a benchmark is long: the ages have to be positive.
  const mw::com::Arrival_time arrival_ = std::chrono::system_clock::now();
  gnssClient::gnssClientImpl gnss_;
};

}  // namespace bench
