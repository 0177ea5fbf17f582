#include "tools/drive/errors.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace drive {
namespace {

/// Each has random numbers of its own.
enum Channel : std::uint64_t {
  slow_east,
  slow_north,
  slow_up,
  fast_east,
  fast_north,
  fast_up,
  street_east,
  street_north,
  street_up,
  speed,
  course,
  climb,
  fused_east,
  fused_north,
  fused_up,
  gyro,
  tilt,
  odometer,
  heading_bias,
};

/// Mixes the bits of a number so that neighbours have nothing in common.
std::uint64_t mixed(std::uint64_t value) {
  value += 0x9E3779B97F4A7C15U;
  value = (value ^ (value >> 30U)) * 0xBF58476D1CE4E5B9U;
  value = (value ^ (value >> 27U)) * 0x94D049BB133111EBU;
  return value ^ (value >> 31U);
}

double uniform(std::uint64_t bits) {
  return (static_cast<double>(bits >> 11U) + 0.5) * 0x1p-53;
}

void move(Sample& sample, const Offset& offset) {
  const auto place =
      Place{sample.latitude, sample.longitude}.moved(offset, Radii::at(sample.latitude));
  sample.latitude = place.latitude;
  sample.longitude = place.longitude;
}

void turn(Sample& sample, double degrees) {
  sample.heading = std::fmod(sample.heading + degrees + 360, 360);
}

// Standard deviations, in metres unless a unit follows. The dilution of precision scales the slow,
// the fast and the fused one.
constexpr double slow_error = 0.9;
constexpr double fast_error = 0.12;
constexpr double street_error = 3.5;
constexpr double fused_error = 0.45;
constexpr double speed_error = 0.05;      // m/s, also across the movement
constexpr double odometer_error = 0.004;  // of the way
constexpr double heading_error = 0.25;    // degrees
constexpr double gyro_drift = 0.015;      // degrees per second
constexpr double slow_period = 60;        // seconds
constexpr double street_period = 8;       // seconds
constexpr double fast_period = 0.5;       // seconds
constexpr double street_factor = 3;       // of the accuracy

}  // namespace

/// Of one index: mean 0, one sigma 1.
double Errors::gaussian(std::uint64_t channel, std::uint64_t index) const {
  const auto first = mixed(seed_ ^ mixed(channel ^ mixed(index)));
  return std::sqrt(-2 * std::log(uniform(first))) *
         std::cos(2 * std::numbers::pi * uniform(mixed(first)));
}

/// A smooth way from one random number to the next in every period, with the same sigma throughout.
double Errors::noise(std::uint64_t channel, double seconds, double period) const {
  const double at = seconds / period;
  const double whole = std::floor(at);
  const auto index = static_cast<std::uint64_t>(static_cast<std::int64_t>(whole));
  const double angle = (at - whole) * std::numbers::pi / 2;
  return gaussian(channel, index) * std::cos(angle) +
         gaussian(channel, index + 1) * std::sin(angle);
}

Sample Errors::gnss(const Sample& sample, const Sky& sky, std::chrono::nanoseconds time) const {
  const double t = std::chrono::duration<double>(time).count();
  Sample told = sample;
  const bool street = sample.surroundings == Surroundings::street;
  const auto error = [&](Channel slow, Channel fast, Channel reflected, double dilution) {
    return dilution * (slow_error * noise(slow, t, slow_period) +
                       fast_error * noise(fast, t, fast_period)) +
           (street ? street_error * noise(reflected, t, street_period) : 0);
  };
  move(told, {error(slow_east, fast_east, street_east, sky.hdop),
              error(slow_north, fast_north, street_north, sky.hdop)});
  told.altitude_msl += error(slow_up, fast_up, street_up, sky.vdop);
  told.climb += 2 * speed_error * noise(climb, t, fast_period);
  // The velocity has an error in each direction; at rest it points anywhere.
  const double ahead = sample.speed + speed_error * noise(speed, t, fast_period);
  const double across = speed_error * noise(course, t, fast_period);
  told.speed = std::hypot(ahead, across);
  turn(told, degrees(std::atan2(across, ahead)));
  return told;
}

Sample Errors::reckoned(const Sample& sample, const Sky& sky, std::chrono::nanoseconds time) const {
  const double t = std::chrono::duration<double>(time).count();
  Sample told = sample;
  const double dilution = std::max(sky.hdop, 1.0);
  move(told, {fused_error * dilution * noise(fused_east, t, slow_period),
              fused_error * dilution * noise(fused_north, t, slow_period)});
  const auto& blind = sample.blind;
  // Half of the heading's error acts on the way, which it has grown over.
  const double bias = heading_error * gaussian(heading_bias, blind.index) +
                      gyro_drift * gaussian(gyro, ~blind.index) * blind.seconds;
  const double along =
      odometer_error * gaussian(odometer, blind.index) * blind.metres * blind.share;
  const double across = radians(bias) / 2 * blind.metres * blind.share;
  const double direction = radians(sample.heading);
  move(told, {along * std::sin(direction) + across * std::cos(direction),
              along * std::cos(direction) - across * std::sin(direction)});
  told.altitude_msl += fused_error * noise(fused_up, t, slow_period);
  turn(told, bias * blind.share + 0.1 * noise(heading_bias, t, slow_period));
  told.speed *= 1 + odometer_error * noise(odometer, t, slow_period);
  told.yaw_rate += 0.08 * noise(gyro, t, fast_period);
  told.pitch += 0.1 * noise(tilt, t, street_period);
  return told;
}

Sky Errors::sky(const Sample& sample, Sky sky) {
  if (sample.surroundings == Surroundings::street) {
    sky.horizontal_accuracy *= street_factor;
    sky.vertical_accuracy *= street_factor;
  }
  return sky;
}

}  // namespace drive
