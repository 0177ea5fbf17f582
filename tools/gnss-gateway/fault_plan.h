/// The faults of a gateway over time: those in force, as a chain, and those that wait.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/gnss-gateway/fault.h"

namespace gateway {

/// Begins, chains and ends the requested faults. The order of the chain is the order of the
/// requests. A fault that begins replaces one in force of the same kind and, if the value is a
/// word, of the same value. Any thread may call all members.
class Fault_plan {
 public:
  static constexpr std::size_t max_faults = 256;

  struct State {
    std::string text;  ///< the request
    bool in_force = false;
    Fault_time start{};
    Fault_time end = Fault_time::max();  ///< greatest: it has none
  };

  /// Changes and messages since the previous call.
  struct Progress {
    std::vector<State> begun;
    std::vector<State> ended;
    std::vector<Message> due;  ///< messages to send
  };

  /// Times in the request count from `now`. Throws std::invalid_argument when the plan is full.
  void add(const Fault_request& request, Fault_time now);
  /// Ends, or never begins, the faults of this name or of this request; without one all. Returns
  /// their number.
  std::size_t clear(std::string_view fault, Fault_time now);
  /// The faults in force and those that wait.
  [[nodiscard]] std::vector<State> list() const;

  /// Sends a message through the chain. The next advance() returns the messages that leave it.
  void pass(Fault_time now, Message message);
  /// Begins and ends faults, and takes the messages that are due.
  [[nodiscard]] Progress advance(Fault_time now);
  /// The time at which advance() has to be called next.
  [[nodiscard]] Fault_time next_due() const;
  /// Whether a message is held.
  [[nodiscard]] bool holds_messages() const;
  [[nodiscard]] Service_fault service() const;

 private:
  struct Planned {
    State state;
    const Fault_kind* kind = nullptr;
    Fault_value value;
    std::unique_ptr<Fault> fault;  ///< while it is in force

    [[nodiscard]] bool begins(Fault_time now) const {
      return !fault && state.start <= now && state.end > now;
    }
  };

  /// For the places of the chain from `place` on.
  void feed(std::size_t place, Fault_time now, Message message);
  /// Ends each fault in force that a beginning one replaces. This bounds the chain.
  void replace_by_beginning(Fault_time now);
  [[nodiscard]] Fault::Sink behind(std::size_t place, Fault_time now);

  mutable std::mutex mutex_;  ///< guards the members below
  std::vector<Planned> faults_;
  std::vector<Message> due_;
};

}  // namespace gateway
