/// The road of a position without a network: a GNSS notification's payload goes in, the Positioning
/// service's payload comes out. With the log off and on, by samples, subscribed satellites and
/// members.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

#include "ara/log/logger.h"
#include "bench/Road.h"
#include "binding/trace_records.h"
#include "clients/received_data_log.h"

namespace {

using bench::notification;
using bench::Road;
using bench::sample;

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
  // As in the application: the trace is there, and nothing of a position is told at this level.
  binding::Platform_trace_logger logger{ara::log::CreateLogger("TRCE", "")};
  const binding::Trace_records trace{logger};
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
