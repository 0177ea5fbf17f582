/// Parts of which a live source is made.
#pragma once

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>

#include "tools/posctl/present.h"
#include "tools/posctl/record_json.h"

namespace posctl::serve {

/// Seconds. The application answers in a millisecond. Longer waits would hold up the rest of the
/// page.
inline constexpr double answer_time = 1;

/// Is due once in each period.
class Period {
 public:
  using Clock = std::chrono::steady_clock;
  explicit Period(std::chrono::milliseconds length) : length_(length) {}
  [[nodiscard]] bool is_due(Clock::time_point now) {
    if (now < last_ + length_) return false;
    last_ = now;
    return true;
  }

 private:
  const std::chrono::milliseconds length_;
  Clock::time_point last_;
};

/// A service that the manifest may lack.
template <class Proxy>
class Service {
 public:
  Service() {
    try {
      present_.emplace();
    } catch (const std::runtime_error& error) {
      missing_ = error.what();
    }
  }
  bool update() { return present_ && present_->update(); }
  [[nodiscard]] Proxy* proxy() { return present_ ? present_->proxy() : nullptr; }
  /// Why there is no proxy: what the manifest lacks, or else `not_offered`.
  [[nodiscard]] std::string absence(const std::string& not_offered) const {
    return missing_.empty() ? not_offered : missing_;
  }
  [[nodiscard]] Json row() {
    const bool offered = proxy() != nullptr;
    return {{"present", offered}, {"text", offered ? "offered" : absence("not offered")}};
  }

 private:
  std::optional<Present<Proxy>> present_;
  std::string missing_;
};

}  // namespace posctl::serve
