/// Session ids: those that we count up, and what those of a peer tell about its restarts.
#pragma once

#include <cstdint>
#include <optional>
#include <utility>

namespace someip {

/// 1 to 0xFFFF and again from 1 (someip_649, someip_677). 0 means "no session" and never appears.
class Session_counter {
 public:
  std::uint16_t next() {
    if (++last_ == 0) {
      last_ = 1;
      wrapped_ = true;
    }
    return last_;
  }
  /// True until the first wrap: the reboot flag of service discovery (someipsd_41), to be asked
  /// after next().
  [[nodiscard]] bool reboot_flag() const { return !wrapped_; }
  /// Goes on behind `other` if that is further: a peer that knows `other` sees no restart here.
  void advance_to(const Session_counter& other) {
    if (std::pair(wrapped_, last_) < std::pair(other.wrapped_, other.last_)) *this = other;
  }

 private:
  std::uint16_t last_ = 0;
  bool wrapped_ = false;
};

/// Detects the restart of a peer from the messages of one channel: multicast and unicast have one
/// each (someipsd_765).
class Reboot_detector {
 public:
  /// Takes note of a message; true when the peer has restarted since the one before (someipsd_764).
  [[nodiscard]] bool restarted(std::uint16_t session, bool reboot_flag) {
    const auto old = last_;
    last_ = {session, reboot_flag};
    if (!old || !reboot_flag) return false;
    return !old->reboot_flag || old->session >= session;
  }
  /// Forgets what was noted, once the restart showed on the other channel: the first message here
  /// is then not taken for a second restart.
  void reset() { last_.reset(); }

 private:
  struct Seen {
    std::uint16_t session;
    bool reboot_flag;
  };
  std::optional<Seen> last_;
};

}  // namespace someip
