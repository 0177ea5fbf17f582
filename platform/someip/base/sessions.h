/// Session ids: our own counters, and the detection of a peer's reboots.
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
  /// True until the first wrap: the reboot flag of service discovery (someipsd_41). Read it after
  /// next().
  [[nodiscard]] bool reboot_flag() const { return !wrapped_; }
  /// Continues behind `other` if that is further: a peer that knows `other` then detects no reboot
  /// here.
  void advance_to(const Session_counter& other) {
    if (std::pair(wrapped_, last_) < std::pair(other.wrapped_, other.last_)) *this = other;
  }

 private:
  std::uint16_t last_ = 0;
  bool wrapped_ = false;
};

/// Detects the reboot of a peer from the messages of one channel. Multicast and unicast have a
/// detector each (someipsd_765).
class Reboot_detector {
 public:
  /// Records a message. Returns true if the peer has rebooted since the previous one
  /// (someipsd_764).
  [[nodiscard]] bool restarted(std::uint16_t session, bool reboot_flag) {
    const auto old = last_;
    last_ = {session, reboot_flag};
    if (!old || !reboot_flag) return false;
    return !old->reboot_flag || old->session >= session;
  }
  /// Forgets the record after the other channel showed the reboot. The first message here then does
  /// not count as a second reboot.
  void reset() { last_.reset(); }

 private:
  struct Seen {
    std::uint16_t session;
    bool reboot_flag;
  };
  std::optional<Seen> last_;
};

}  // namespace someip
