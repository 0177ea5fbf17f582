/// The positions of the application or of its source as they come.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "tools/posctl/record_json.h"

namespace posctl::track {

/// Passes on each position from its construction on, over every loss and return of the service.
class Live_positions {
 public:
  /// Called in order, one call at a time, on a thread of the runtime.
  using Take = std::function<void(const Json& record)>;

  /// `position` is one of position_choices().
  Live_positions(const std::string& position, Take take);
  ~Live_positions();
  Live_positions(const Live_positions&) = delete;
  Live_positions& operator=(const Live_positions&) = delete;

  /// Waits for a call of `take` that runs; no other follows.
  void stop();
  /// Has the service been offered at any time?
  [[nodiscard]] bool found() const { return found_; }
  /// For messages: "Positioning" or "GNSS".
  [[nodiscard]] const char* service() const { return is_output_ ? "Positioning" : "GNSS"; }

 private:
  class Follower;
  template <class Proxy>
  class Follower_of;

  const bool is_output_;
  std::atomic<bool> found_ = false;
  std::unique_ptr<Follower> follower_;
};

/// Judges a wait that has ended after `timeout` seconds. Throws tools::No_answer if the service was
/// not offered, and std::runtime_error if fewer than `enough` positions came; 0 is any number from
/// 1.
void check_positions(const Live_positions& positions,
                     double timeout,
                     std::uint64_t came,
                     std::uint64_t enough);

}  // namespace posctl::track
