/// The path of a position without a network: a GNSS notification's payload goes in, the Positioning
/// service's payload comes out. With the log off and on, by samples and by satellites.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "ara/log/logger.h"
#include "bench/position_path.h"
#include "binding/trace_records.h"
#include "clients/received_data_log.h"

namespace {

using bench::notification;
using bench::Position_path;
using bench::sample;

void set_log(ara::log::LogLevel level) {
  for (const char* context : {"POS", "GNSS", "PSRV"}) {
    ara::log::CreateLogger(context, "").SetLevel(level);
  }
}

void path_without_log(benchmark::State& state) {
  set_log(ara::log::LogLevel::kOff);
  Position_path path{true};
  const auto payload = notification(static_cast<std::size_t>(state.range(0)));
  const auto before = path.published();
  for ([[maybe_unused]] auto _ : state)
    path.drive(payload);
  state.counters["published"] =
      static_cast<double>(path.published() - before) / static_cast<double>(state.iterations());
  set_log(ara::log::LogLevel::kInfo);
}
BENCHMARK(path_without_log)->Arg(2)->Arg(1)->Arg(10)->Arg(100);

void satellites_without_log(benchmark::State& state) {
  set_log(ara::log::LogLevel::kOff);
  Position_path path{true};
  binding::Buffer payload;
  binding::encode(bench::satellites(static_cast<std::size_t>(state.range(0))), payload);
  for ([[maybe_unused]] auto _ : state)
    path.drive(payload, "posGnssSatInfos");
  set_log(ara::log::LogLevel::kInfo);
}
BENCHMARK(satellites_without_log)->Arg(0)->Arg(1)->Arg(20)->Arg(60)->Arg(200);

/// What the ages add to the path of a position: both calls, and the clock at the end.
void ages_of_a_position(benchmark::State& state) {
  const auto& time = timeutils::instance();
  binding::Position_ages ages;
  const auto now = time.now();
  const mw::com::Arrival_time arrival{now - std::chrono::microseconds(20)};
  const auto stamp = binding::Timestamp::of(now - std::chrono::milliseconds(1));
  for ([[maybe_unused]] auto _ : state) {
    ages.received(stamp, arrival, now);
    ages.sent(time.now());
  }
}
BENCHMARK(ages_of_a_position);

/// The part of it that no histogram can save.
void reading_of_the_clock_for_ages(benchmark::State& state) {
  const auto& time = timeutils::instance();
  for ([[maybe_unused]] auto _ : state)
    benchmark::DoNotOptimize(time.now());
}
BENCHMARK(reading_of_the_clock_for_ages);

/// The pipe to the DLT daemon, which a program that does nothing but log fills faster than the
/// daemon empties it. The library then throws messages away and says so on standard error.
class Daemon_pipe {
 public:
  Daemon_pipe() {
    const char* folder = std::getenv("DLT_PIPE_DIR");
    pipe_ = ::open((std::string(folder != nullptr ? folder : "/tmp") + "/dlt").c_str(),
                   O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  }
  ~Daemon_pipe() {
    if (pipe_ >= 0) ::close(pipe_);
  }
  Daemon_pipe(const Daemon_pipe&) = delete;
  Daemon_pipe& operator=(const Daemon_pipe&) = delete;

  /// Or until the daemon has not read all for a second.
  void wait_until_empty() const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    int unread = 0;
    while (pipe_ >= 0 && ::ioctl(pipe_, FIONREAD, &unread) == 0 && unread > 0 &&
           std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::microseconds(20));
  }

 private:
  int pipe_;
};

/// Into the DLT daemon when one runs (bench/run starts one); else to standard error. After as many
/// positions as fit into its pipe, the daemon gets the time to read them.
void path_with_log(benchmark::State& state) {
  constexpr std::size_t at_once = 16;
  set_log(ara::log::LogLevel::kInfo);
  Position_path path{true};
  const auto payload = notification(2);
  const Daemon_pipe pipe;
  std::size_t driven = 0;
  for ([[maybe_unused]] auto _ : state) {
    path.drive(payload);
    if (++driven % at_once == 0) {
      state.PauseTiming();
      pipe.wait_until_empty();
      state.ResumeTiming();
    }
  }
}
BENCHMARK(path_with_log);

void log_line_of_a_position(benchmark::State& state) {
  const auto position = sample(2);
  std::string text;
  for ([[maybe_unused]] auto _ : state) {
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
  for ([[maybe_unused]] auto _ : state) {
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
        static_cast<unsigned>(*p.positionType), static_cast<double>(*p.messageCounter), *p.LAT,
        "PhysicalValue", *p.LON, "PhysicalValue", static_cast<double>(*p.altitudeWGS84),
        "PhysicalValue", static_cast<double>(*p.altitudeMeanSeaLevel), "PhysicalValue",
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
