#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <random>
#include <type_traits>
#include <utility>

#include "binding/record.h"
#include "binding/timestamp.h"
#include "tools/from_seconds.h"
#include "tools/gnss-gateway/fault.h"

namespace gateway::faults {
namespace {

using namespace lumo::services::gnss::datatypes;
using namespace std::chrono_literals;
using binding::Value_type;
using lumo::services::Position_type;
using Position = DT_positions_struct;

/// A fault that changes each notification by itself.
template <class Change>
class Changing final : public Fault {
 public:
  explicit Changing(Change change) : change_(std::move(change)) {}

  void pass(Fault_time now, Message message, const Sink& next) override {
    change_(now, message.content);
    next(std::move(message));
  }

 private:
  Change change_;
};

/// `change` is called with the time and the notification.
template <class Change>
std::unique_ptr<Fault> changing(Change change) {
  return std::make_unique<Changing<Change>>(std::move(change));
}

/// `change` is called with each position record.
template <class Change>
std::unique_ptr<Fault> changing_positions(Change change) {
  return changing([change = std::move(change)](Fault_time, Notification& notification) {
    for (auto& record : notification.positions)
      change(record);
  });
}

double seconds(Fault_time time) {
  return std::chrono::duration<double>(time).count();
}

/// `change` maps the time stamp of a record to another one.
template <class Change>
std::unique_ptr<Fault> changing_stamps(Change change) {
  return changing([change](Fault_time now, Notification& notification) {
    for (auto& record : notification.positions) {
      const auto stamp = binding::timestamp_of(record);
      if (!stamp) continue;
      const auto changed =
          std::max<std::chrono::nanoseconds>(change(now, stamp->since_epoch()), 0s);
      const auto wrong = binding::Timestamp::of(changed);
      record.preciseLocalTimeSeconds = wrong.seconds;
      record.preciseLocalTimeNanoseconds = wrong.nanoseconds;
    }
  });
}

std::unique_ptr<Fault> shifting_stamps(std::chrono::nanoseconds shift) {
  return changing_stamps(
      [shift](Fault_time, std::chrono::nanoseconds stamp) { return stamp + shift; });
}

/// A physical value in each quantity that is a floating-point number.
std::unique_ptr<Fault> setting_floats(double value) {
  return changing_positions([value](Position& record) {
    binding::for_each_quantity<Position>([&]<class Quantity>(const Quantity& quantity) {
      using Value = typename std::remove_cvref_t<decltype(quantity.value)>::value_type;
      if constexpr (std::is_floating_point_v<Value>) {
        auto& member = record.*quantity.value.pointer;
        if (!member) return;
        member = static_cast<Value>(value);
        record.*quantity.quality.pointer = Value_type::physical_value;
      }
    });
  });
}

/// Stands still: repeats the values of the first notification with a position.
std::unique_ptr<Fault> standing_still(bool with_counter) {
  return changing([with_counter, held = std::optional<Notification>()](
                      Fault_time, Notification& notification) mutable {
    if (!held) {
      if (!notification.positions.empty()) held = notification;
      return;
    }
    auto still = *held;
    if (notification.positions.empty()) still.positions.clear();
    if (!with_counter && !still.positions.empty()) {
      const auto& fresh = notification.positions.front();
      for (auto& record : still.positions) {
        record.messageCounter = fresh.messageCounter;
        record.preciseLocalTimeSeconds = fresh.preciseLocalTimeSeconds;
        record.preciseLocalTimeNanoseconds = fresh.preciseLocalTimeNanoseconds;
      }
    }
    notification = std::move(still);
  });
}

constexpr std::array<std::string_view, 5> value_type_words{"1", "2", "3", "7", "absent"};
constexpr auto position_type_words = [] {
  constexpr auto& types = binding::enumerators<Position_type>;
  std::array<std::string_view, types.size()> words;
  std::ranges::transform(types, words.begin(), [](const auto& type) { return type.name; });
  return words;
}();

bool is_stamp(std::string_view member) {
  return member == "preciseLocalTimeSeconds" || member == "preciseLocalTimeNanoseconds";
}

/// Its satellites are in view, but in no solution.
void lose_fix(DT_positionsQuality_struct& record) {
  record.statusFixType = Fix_type::none;
  record.statusReceiverMode = Receiver_mode::acquiring;
  record.satsInUse = 0U;
  record.satsInUse_valueType = Value_type::physical_value;
  record.systemsInUse = 0U;
  for (auto* in_use : {&record.satsInUseGPS, &record.satsInUseGLONASS, &record.satsInUseGalileo,
                       &record.satsInUseBeiDou, &record.satsInUseSBAS}) {
    *in_use = std::uint8_t{0};
  }
  const auto lose = [](auto& dilution, auto& quality) {
    if (quality) quality = Value_type::error;
    dilution = boost::none;
  };
  lose(record.gDOP, record.gDOP_valueType);
  lose(record.hDOP, record.hDOP_valueType);
  lose(record.pDOP, record.pDOP_valueType);
  lose(record.vDOP, record.vDOP_valueType);
}

/// Error of a single range in metres, from which a receiver derives its accuracy.
constexpr double range_error = 5;

}  // namespace

std::span<const std::string_view> value_types() {
  return value_type_words;
}

std::span<const std::string_view> position_types() {
  return position_type_words;
}

std::span<const std::string_view> members() {
  static const auto names = [] {
    std::vector<std::string_view> result;
    binding::for_each_member<Position>([&]<class M>(const M& member) {
      if constexpr (!std::is_same_v<typename M::value_type, Value_type>) {
        result.push_back(member.name);
      }
    });
    result.push_back("all");
    return result;
  }();
  return names;
}

void move(Notification& notification, double north_m, double east_m) {
  constexpr double metres_per_degree = 6'371'008.8 * std::numbers::pi / 180;
  constexpr double least_radius = 1e-6;  // of a parallel, next to a pole
  for (auto& record : notification.positions) {
    if (!record.LAT || !record.LON) continue;
    const double radius = std::cos(*record.LAT * std::numbers::pi / 180);
    record.LAT = std::clamp(*record.LAT + north_m / metres_per_degree, -90.0, 90.0);
    record.LON = std::remainder(
        *record.LON + east_m / (metres_per_degree * std::max(radius, least_radius)), 360.0);
  }
}

std::unique_ptr<Fault> make_stuck(const Fault_value&, Fault_time) {
  return standing_still(false);
}

std::unique_ptr<Fault> make_stuck_with_counter(const Fault_value&, Fault_time) {
  return standing_still(true);
}

std::unique_ptr<Fault> make_accuracy(const Fault_value& value, Fault_time) {
  return changing([metres = value.number, random = std::minstd_rand(1)](
                      Fault_time, Notification& notification) mutable {
    // Two directions make up the horizontal error.
    std::normal_distribution<double> error(0, metres / std::numbers::sqrt2);
    const double north = error(random);
    const double east = error(random);
    move(notification, north, east);
    for (auto& record : notification.positions) {
      record.accuracyHorizontal = static_cast<float>(metres);
      record.accuracyHorizontal_valueType = Value_type::physical_value;
      record.accuracyVertical = static_cast<float>(metres);
      record.accuracyVertical_valueType = Value_type::physical_value;
    }
    for (auto& record : notification.quality) {
      for (auto* dilution : {&record.gDOP, &record.hDOP, &record.pDOP, &record.vDOP}) {
        if (*dilution) *dilution = static_cast<float>(metres / range_error);
      }
    }
  });
}

std::unique_ptr<Fault> make_drift(const Fault_value& value, Fault_time start) {
  return changing([speed = value.number, start](Fault_time now, Notification& notification) {
    move(notification, speed * seconds(now - start), 0);
  });
}

std::unique_ptr<Fault> make_jump(const Fault_value& value, Fault_time) {
  return changing([metres = value.number](Fault_time, Notification& notification) {
    move(notification, metres, 0);
  });
}

std::unique_ptr<Fault> make_off_globe(const Fault_value&, Fault_time) {
  return changing_positions([](Position& record) {
    if (record.LAT) record.LAT = 91.0;
    if (record.LON) record.LON = 181.0;
  });
}

std::unique_ptr<Fault> make_not_a_number(const Fault_value&, Fault_time) {
  return setting_floats(std::numeric_limits<double>::quiet_NaN());
}

std::unique_ptr<Fault> make_infinity(const Fault_value&, Fault_time) {
  return setting_floats(std::numeric_limits<double>::infinity());
}

std::unique_ptr<Fault> make_no_fix(const Fault_value&, Fault_time) {
  return changing([](Fault_time, Notification& notification) {
    for (auto& record : notification.positions) {
      binding::for_each_quantity<Position>([&](const auto& quantity) {
        auto& quality = record.*quantity.quality.pointer;
        if (!quality || is_stamp(quantity.value.name)) return;
        record.*quantity.value.pointer = boost::none;
        quality = Value_type::error;
      });
    }
    for (auto& record : notification.quality)
      lose_fix(record);
    if (!notification.satellites) return;
    for (auto& satellite : *notification.satellites) {
      if (satellite.usage == Satellite_usage::in_solution) {
        satellite.usage = Satellite_usage::tracked;
      }
    }
  });
}

std::unique_ptr<Fault> make_value_type(const Fault_value& value, Fault_time) {
  boost::optional<Value_type> wrong;
  const auto word = value_type_words.at(value.choice);
  if (word != "absent") wrong = static_cast<Value_type>(word.front() - '0');
  return changing_positions([wrong](Position& record) {
    binding::for_each_quantity<Position>([&](const auto& quantity) {
      if (record.*quantity.value.pointer) record.*quantity.quality.pointer = wrong;
    });
  });
}

std::unique_ptr<Fault> make_missing(const Fault_value& value, Fault_time) {
  const auto missing = members()[value.choice];
  return changing_positions([missing](Position& record) {
    bool hit = false;
    binding::for_each_member<Position>([&]<class M>(const M& member) {
      // The valueType follows its quantity.
      if (!std::is_same_v<typename M::value_type, Value_type>) {
        hit = missing == "all" || missing == member.name;
      }
      if (hit) record.*member.pointer = boost::none;
    });
  });
}

std::unique_ptr<Fault> make_only_type(const Fault_value& value, Fault_time) {
  const auto only = binding::enumerators<Position_type>.at(value.choice).value;
  return changing([only](Fault_time, Notification& notification) {
    std::erase_if(notification.positions,
                  [only](const auto& record) { return record.positionType != only; });
    std::erase_if(notification.quality,
                  [only](const auto& record) { return record.positionType != only; });
  });
}

std::unique_ptr<Fault> make_stamp_jump(const Fault_value& value, Fault_time) {
  return shifting_stamps(tools::from_seconds(value.number));
}

std::unique_ptr<Fault> make_future_stamps(const Fault_value& value, Fault_time) {
  return shifting_stamps(tools::from_seconds(value.number));
}

std::unique_ptr<Fault> make_slow_clock(const Fault_value& value, Fault_time start) {
  return changing_stamps(
      [slowness = value.number / 1e6, start](Fault_time now, std::chrono::nanoseconds stamp) {
        return stamp - tools::from_seconds(slowness * seconds(now - start));
      });
}

std::unique_ptr<Fault> make_week_rollover(const Fault_value&, Fault_time) {
  return shifting_stamps(-1024 * std::chrono::weeks(1));
}

}  // namespace gateway::faults
