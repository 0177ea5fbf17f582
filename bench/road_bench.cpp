/// The road of a position without a network: a GNSS notification's payload goes in, the Positioning
/// service's payload comes out. With the log off and on, by samples, subscribed satellites and
/// members.
///
/// `bench_road --once N` runs N positions and nothing else, for callgrind.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "ara/log/logger.h"
#include "bench/Quiet_runtime.h"
#include "binding/codec.h"
#include "clients/gnssClientImpl.h"
#include "clients/received_data_log.h"
#include "diagnosisService/diagnosisServiceImpl.h"
#include "posService/conversion.h"
#include "posService/posServiceImpl.h"

namespace {

namespace gnss = lumo::services::gnss::datatypes;

gnss::DT_positions_struct sample(std::uint32_t type) {
  gnss::DT_positions_struct position;
  binding::for_each_quantity<gnss::DT_positions_struct>([&](const auto& quantity) {
    using Value = typename std::remove_cvref_t<decltype(quantity.value)>::value_type;
    position.*quantity.value.pointer = static_cast<Value>(12.3456789 + quantity.value.id);
    position.*quantity.quality.pointer = binding::Value_type::physical_value;
  });
  position.positionType = type;
  position.messageCounter = 7;
  return position;
}

binding::Buffer notification(std::size_t samples) {
  std::vector<gnss::DT_positions_struct> positions;
  for (std::size_t i = 0; i < samples; ++i)
    positions.push_back(sample(i % 2 == 0 ? 1 : 2));
  binding::Buffer payload;
  binding::encode(positions, payload);
  return payload;
}

/// The application's parts on that road, connected as it connects them.
class Road {
 public:
  explicit Road(bool log_received) {
    gnss_.setRecievedGNSSDataLogging(log_received);
    gnss_.setIgnoreGNSSTimestamps(true);
    gnss_.setUseGNSSDR(true);
    gnss_.setPositionCallback([this](const gnss::DT_positions_struct& position) {
      ara::log::LogInfo() << "Sending "
                          << "GNSS-DR"
                          << " input position as POS output DR position.";
      service_.sendDR(posService::toPositioning(position, {2, 1, 2, 2, 2, 1, 0}));
      diagnosis_.dataReceived(0x83D104);
      diagnosis_.dataReceived(0x83D101);
    });
    service_.setAlwaysSendAllValidPositions(true);
    service_.setMmNewPositionCalculationIntervalMS(1000);
    service_.init();
    gnss_.init();
    runtime_.find();
  }
  ~Road() { gnss_.stop(); }

  void drive(const binding::Buffer& payload) { runtime_.notify("positions", payload); }
  [[nodiscard]] std::uint64_t published() const { return runtime_.published(); }

 private:
  Quiet_runtime runtime_;
  diagnosisService::diagnosisServiceImpl diagnosis_;
  posServiceImpl service_{diagnosis_};
  gnssClient::gnssClientImpl gnss_;
};

void set_log(ara::log::LogLevel level) {
  for (const char* context : {"POS", "GNSS", "PSRV"}) {
    ara::log::CreateLogger(context, "").SetLevel(level);
  }
}

void road_without_log(benchmark::State& state) {
  set_log(ara::log::LogLevel::kOff);
  Road road{true};
  const auto payload = notification(static_cast<std::size_t>(state.range(0)));
  const auto before = road.published();
  for (auto _ : state)
    road.drive(payload);
  state.counters["published"] =
      static_cast<double>(road.published() - before) / static_cast<double>(state.iterations());
  set_log(ara::log::LogLevel::kInfo);
}
BENCHMARK(road_without_log)->Arg(2)->Arg(1)->Arg(10)->Arg(100);

/// Into the DLT daemon when one runs (bench/run starts one); else to standard error.
void road_with_log(benchmark::State& state) {
  set_log(ara::log::LogLevel::kInfo);
  Road road{true};
  const auto payload = notification(2);
  for (auto _ : state)
    road.drive(payload);
}
BENCHMARK(road_with_log);

void log_line_of_a_position(benchmark::State& state) {
  const auto position = sample(2);
  std::string text;
  for (auto _ : state) {
    text.clear();
    gnssClient::append_line(text, position, 1'700'000'000'000'000);
    benchmark::DoNotOptimize(text.data());
  }
  state.counters["bytes"] = static_cast<double>(text.size());
}
BENCHMARK(log_line_of_a_position);

/// The baseline: the same content by one call of snprintf.
void log_line_by_snprintf(benchmark::State& state) {
  const auto p = sample(2);
  char text[2048];
  for (auto _ : state) {
    std::snprintf(
        text, sizeof text,
        "###### position from gnss: position type=%u, messageCounter=%.16g, LAT=%.16g (valueType "
        "is %s)"
        ", LON=%.16g (valueType is %s), altitudeWGS84=%.16g (valueType is %s), "
        "altitudeMeanSeaLevel=%.16g "
        "(valueType is %s) yawAngle=%.16g (valueType is %s), speed2D=%.16g (valueType is %s), "
        "preciseLocalTimeSeconds=%u (valueType is %s), preciseLocalTimeNanoseconds=%u (valueType "
        "is %s), "
        "sample is %llu us old at arrival compared to PLT, sampleTime = %llu arrivalTime = %llu",
        *p.positionType, static_cast<double>(*p.messageCounter), *p.LAT, "PhysicalValue", *p.LON,
        "PhysicalValue", static_cast<double>(*p.altitudeWGS84), "PhysicalValue",
        static_cast<double>(*p.altitudeMeanSeaLevel), "PhysicalValue",
        static_cast<double>(*p.yawAngle), "PhysicalValue", static_cast<double>(*p.speed2D),
        "PhysicalValue", *p.preciseLocalTimeSeconds, "PhysicalValue",
        *p.preciseLocalTimeNanoseconds, "PhysicalValue", 1699999999000000ULL, 1000000ULL,
        1700000000000000ULL);
    benchmark::DoNotOptimize(&text[0]);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(log_line_by_snprintf);

}  // namespace

int main(int argc, char** argv) {
  ara::log::InitLogging("POS", "benchmark", ara::log::LogLevel::kInfo, ara::log::LogMode::kRemote,
                        "");
  if (argc == 3 && std::string_view{argv[1]} == "--once") {
    set_log(ara::log::LogLevel::kOff);
    Road road{true};
    const auto payload = notification(2);
    for (long i = std::strtol(argv[2], nullptr, 10); i > 0; --i)
      road.drive(payload);
    return 0;
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
