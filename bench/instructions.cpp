/// Does one thing N times, for callgrind: `bench_instructions THING N`.
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "bench/position_path.h"
#include "binding/trace_records.h"
#include "clients/received_data_log.h"

namespace {

/// Keeps the optimizer from dropping what nobody reads.
template <class T>
void keep(const T& value) {
  asm volatile("" : : "g"(&value) : "memory");
}

template <class Values>
void encode(const Values& values, long count) {
  binding::Buffer scratch;
  for (; count > 0; --count)
    keep(binding::encode_into(values, scratch));
}
template <class Values>
void decode(const Values& values, long count) {
  binding::Buffer payload;
  binding::encode(values, payload);
  Values out;
  for (; count > 0; --count) {
    binding::Cursor cursor{payload};
    binding::decode(cursor, out);
    keep(out);
  }
}
void drive(bool log, long count) {
  for (const char* context : {"POS", "GNSS", "PSRV"}) {
    ara::log::CreateLogger(context, "")
        .SetLevel(log ? ara::log::LogLevel::kInfo : ara::log::LogLevel::kOff);
  }
  // As in the application: the trace is there, and off.
  auto& trace_context = ara::log::CreateLogger("TRCE", "");
  trace_context.SetLevel(ara::log::LogLevel::kOff);
  binding::Platform_trace_logger logger{trace_context};
  const binding::Trace_records trace{logger};
  bench::Position_path path{true};
  const auto payload = bench::notification(2);
  for (; count > 0; --count)
    path.drive(payload);
}
void line(long count) {
  const auto position = bench::sample(2);
  std::string text;
  for (; count > 0; --count) {
    text.clear();
    gnssClient::append_line(text, position, 1'700'000'000'000'000);
    keep(text);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector full{bench::sample(2)};
  const std::vector sparse{bench::sparse_sample(8)};
  const auto satellites = bench::satellites(60);
  const std::map<std::string, std::function<void(long)>> things{
      {"encode_full", [&](long n) { encode(full, n); }},
      {"decode_full", [&](long n) { decode(full, n); }},
      {"encode_sparse", [&](long n) { encode(sparse, n); }},
      {"decode_sparse", [&](long n) { decode(sparse, n); }},
      {"encode_satellites", [&](long n) { encode(satellites, n); }},
      {"decode_satellites", [&](long n) { decode(satellites, n); }},
      {"path", [](long n) { drive(false, n); }},
      {"path_with_log", [](long n) { drive(true, n); }},
      {"line", line}};
  const auto thing = argc == 3 ? things.find(argv[1]) : things.end();
  if (thing == things.end()) {
    std::cerr << "usage: bench_instructions THING N, with one of the things\n";
    for (const auto& [name, _] : things)
      std::cerr << "  " << name << "\n";
    return 2;
  }
  ara::log::InitLogging("POS", "benchmark", ara::log::LogLevel::kInfo, ara::log::LogMode::kRemote,
                        "");
  thing->second(std::strtol(argv[2], nullptr, 10));
  return 0;
}
