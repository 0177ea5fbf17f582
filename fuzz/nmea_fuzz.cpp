// A receiver's byte stream: however it is cut, the same fixes come out, and they are plausible.
#include <cmath>
#include <string_view>
#include <vector>

#include "fuzz/input.h"
#include "tools/nmea/reader.h"

namespace {

using fuzz::require;

struct Result {
  std::vector<nmea::Fix> fixes;
  nmea::Counters counters;
};

Result read(fuzz::Bytes stream, std::size_t first, std::size_t then) {
  Result result;
  const auto keep = [&](const nmea::Fix& fix) { result.fixes.push_back(fix); };
  nmea::Reader reader;
  for (std::size_t piece = first; !stream.empty(); piece = then) {
    const auto part = stream.first(std::min(stream.size(), std::max<std::size_t>(piece, 1)));
    stream = stream.subspan(part.size());
    reader.feed(part, keep);
  }
  reader.finish(keep);
  result.counters = reader.counters();
  return result;
}

bool within(const std::optional<double>& value, double low, double high) {
  return !value || (std::isfinite(*value) && *value >= low && *value <= high);
}

void check(const nmea::Fix& fix) {
  constexpr double any = 1e12;
  if (fix.position) {
    require(within(fix.position->latitude, -90, 90) && within(fix.position->longitude, -180, 180),
            "a position is on the globe");
  }
  require(within(fix.course, 0, 360) && within(fix.heading, 0, 360), "a course is an angle");
  require(within(fix.roll, -180, 180) && within(fix.pitch, -90, 90), "an attitude is one");
  require(within(fix.accuracy_horizontal, 0, any) && within(fix.accuracy_vertical, 0, any) &&
              within(fix.heading_accuracy, 0, 360) && within(fix.age_of_corrections, 0, any),
          "an accuracy is a number");
  require(!fix.valid || fix.position, "a valid fix has a position");
  require(!fix.supplement, "a stream without pauses has no supplements");
  require(within(fix.speed, 0, any) && within(fix.altitude_msl, -any, any) &&
              within(fix.geoid_separation, -any, any),
          "a quantity is a number");
  require(within(fix.pdop, 0, any) && within(fix.hdop, 0, any) && within(fix.vdop, 0, any),
          "a dilution is a number");
  if (fix.time_of_day) {
    require(
        *fix.time_of_day >= std::chrono::seconds(0) && *fix.time_of_day < std::chrono::hours(25),
        "a time of day is within the day");
  }
  if (!fix.satellites) return;
  for (const auto& satellite : *fix.satellites) {
    require(!satellite.elevation || std::abs(*satellite.elevation) <= 90, "an elevation is one");
    require(!satellite.azimuth || (*satellite.azimuth >= 0 && *satellite.azimuth < 360),
            "an azimuth is one");
  }
}

/// Mutations seldom keep a checksum: gives every sentence the right one.
std::vector<std::byte> with_right_checksums(fuzz::Bytes stream) {
  constexpr std::string_view digits = "0123456789ABCDEF";
  std::vector<std::byte> bytes(stream.begin(), stream.end());
  std::byte sum{0};
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (bytes[i] == std::byte{'$'}) {
      sum = std::byte{0};
    } else if (bytes[i] == std::byte{'*'} && i + 2 < bytes.size()) {
      const auto value = std::to_integer<std::size_t>(sum);
      bytes[i + 1] = static_cast<std::byte>(digits[value >> 4U]);
      bytes[i + 2] = static_cast<std::byte>(digits[value & 0x0FU]);
    } else {
      sum ^= bytes[i];
    }
  }
  return bytes;
}

}  // namespace

// Length of the first piece, of all others, whether checksums are put right, the stream.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input{data, size};
  const std::size_t first = input.u8();
  const std::size_t then = input.u8();
  const bool repair = input.flag();
  const fuzz::Bytes received = input.rest();
  const auto repaired = repair ? with_right_checksums(received) : std::vector<std::byte>{};
  const fuzz::Bytes stream = repair ? fuzz::Bytes(repaired) : received;
  const Result whole = read(stream, stream.size(), stream.size());
  const Result pieces = read(stream, first, then);
  require(whole.fixes == pieces.fixes, "fixes do not depend on how the stream was cut");
  require(whole.counters.sentences == pieces.counters.sentences &&
              whole.counters.noise_bytes == pieces.counters.noise_bytes &&
              whole.counters.contradictions == pieces.counters.contradictions &&
              whole.counters.errors() == pieces.counters.errors(),
          "nor does what is counted");
  for (const auto& fix : whole.fixes)
    check(fix);
  return 0;
}
