/// The errors of real sensors, for a synthetic drive.
#pragma once

#include <chrono>
#include <cstdint>

#include "tools/drive/course.h"

namespace drive {

/// The same seed gives the same errors at the same instant, in whatever order they are asked for.
///
/// The error of the satellites' position wanders slowly, with a little noise on top. In streets,
/// reflections add some metres. Without satellites, the error of dead reckoning grows with the way
/// and with the time; then a fix corrects it within some seconds.
class Errors {
 public:
  explicit Errors(std::uint64_t seed) : seed_(seed) {}

  /// What a receiver without sensors says at `sample`.
  [[nodiscard]] Sample gnss(const Sample& sample,
                            const Sky& sky,
                            std::chrono::nanoseconds time) const;
  /// What one with sensors says.
  [[nodiscard]] Sample reckoned(const Sample& sample,
                                const Sky& sky,
                                std::chrono::nanoseconds time) const;
  /// What the receiver expects of its accuracy.
  [[nodiscard]] static Sky sky(const Sample& sample, Sky sky);

 private:
  [[nodiscard]] double gaussian(std::uint64_t channel, std::uint64_t index) const;
  [[nodiscard]] double noise(std::uint64_t channel, double seconds, double period) const;

  std::uint64_t seed_;
};

}  // namespace drive
