/// Does one thing N times, for callgrind: `bench_instructions encode|decode|satellites|road|line
/// N`.
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <string>

#include "bench/Road.h"
#include "binding/trace_records.h"
#include "clients/received_data_log.h"

namespace {

using lumo::services::gnss::datatypes::DT_posGnssSatInfos_struct;

/// Keeps the optimizer from dropping what nobody reads.
template <class T>
void keep(const T& value) {
  asm volatile("" : : "g"(&value) : "memory");
}

void encode(long count) {
  const std::vector positions{bench::sample(2)};
  binding::Buffer scratch;
  for (; count > 0; --count) {
    keep(binding::encode_into(positions, scratch));
  }
}
template <class Values>
void decode_again(const Values& values, long count) {
  binding::Buffer payload;
  binding::encode(values, payload);
  Values out;
  for (; count > 0; --count) {
    binding::Cursor cursor{payload};
    binding::decode(cursor, out);
    keep(out);
  }
}
void decode(long count) {
  decode_again(std::vector{bench::sample(2)}, count);
}
void satellites(long count) {
  DT_posGnssSatInfos_struct satellite;
  binding::for_each_member<DT_posGnssSatInfos_struct>(
      [&]<class M>(const M& m) { satellite.*m.pointer = static_cast<typename M::value_type>(4); });
  decode_again(std::vector<DT_posGnssSatInfos_struct>(60, satellite), count);
}
void road(long count) {
  for (const char* context : {"POS", "GNSS", "PSRV", "TRCE"}) {
    ara::log::CreateLogger(context, "").SetLevel(ara::log::LogLevel::kOff);
  }
  // As in the application: the trace is there, and off.
  binding::Platform_trace_logger logger{ara::log::CreateLogger("TRCE", "")};
  const binding::Trace_records trace{logger};
  bench::Road road{true};
  const auto payload = bench::notification(2);
  for (; count > 0; --count)
    road.drive(payload);
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
  const std::map<std::string, std::function<void(long)>> things{{"encode", encode},
                                                                {"decode", decode},
                                                                {"satellites", satellites},
                                                                {"road", road},
                                                                {"line", line}};
  const auto thing = argc == 3 ? things.find(argv[1]) : things.end();
  if (thing == things.end()) {
    std::cerr << "usage: bench_instructions encode|decode|satellites|road|line N\n";
    return 2;
  }
  ara::log::InitLogging("POS", "benchmark", ara::log::LogLevel::kInfo, ara::log::LogMode::kRemote,
                        "");
  thing->second(std::strtol(argv[2], nullptr, 10));
  return 0;
}
