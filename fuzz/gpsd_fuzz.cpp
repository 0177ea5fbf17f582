// What a gpsd sends: however it is cut, the same fixes come out, and they are plausible.
#include <cmath>
#include <vector>

#include "fuzz/input.h"
#include "tools/gnss-gateway/gpsd_reader.h"

namespace {

using fuzz::require;

std::vector<nmea::Fix> read(std::span<const char> stream, std::size_t piece) {
  std::vector<nmea::Fix> fixes;
  const auto keep = [&](const nmea::Fix& fix) { fixes.push_back(fix); };
  gateway::Gpsd_reader reader("");
  while (!stream.empty()) {
    const auto part = stream.first(std::min(stream.size(), piece));
    stream = stream.subspan(part.size());
    reader.feed(part, keep);
  }
  reader.pause(keep);
  return fixes;
}

void check(const nmea::Fix& fix) {
  require(!fix.valid || fix.position, "a valid fix has a position");
  if (fix.position) {
    require(std::abs(fix.position->latitude) <= 90 && std::abs(fix.position->longitude) <= 180,
            "a position is on the globe");
  }
  for (const auto& value : {fix.altitude_msl, fix.altitude_ellipsoid, fix.speed, fix.climb,
                            fix.accuracy_horizontal, fix.yaw_rate, fix.hdop}) {
    require(!value || std::isfinite(*value), "a quantity is a number");
  }
  if (!fix.satellites) return;
  for (const auto& satellite : *fix.satellites) {
    require(!satellite.azimuth || (*satellite.azimuth >= 0 && *satellite.azimuth < 360),
            "an azimuth is one");
  }
}

}  // namespace

// Length of the pieces, the stream.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input{data, size};
  const std::size_t piece = input.u8() + std::size_t{1};
  const fuzz::Bytes bytes = input.rest();
  const std::span stream(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  const auto whole = read(stream, std::max<std::size_t>(stream.size(), 1));
  require(whole == read(stream, piece), "fixes do not depend on how the stream was cut");
  for (const auto& fix : whole)
    check(fix);
  return 0;
}
