#include "tools/gnss-gateway/fault_control.h"

#include <limits>
#include <stdexcept>
#include <utility>

#include "tools/gnss-gateway/fault_plan.h"

namespace gateway {
namespace {

template <class Value>
ara::core::Future<Value> ready(Value value) {
  ara::core::Promise<Value> promise;
  promise.set_value(std::move(value));
  return promise.get_future();
}

std::vector<Known_fault> known_faults() {
  std::vector<Known_fault> result;
  for (const auto& kind : fault_kinds()) {
    result.push_back({.name = std::string(kind.name),
                      .meaning = std::string(kind.meaning),
                      .unit = std::string(kind.unit),
                      .low = kind.low,
                      .high = kind.high,
                      .choices = {kind.choices.begin(), kind.choices.end()},
                      .usual = std::string(kind.usual)});
  }
  return result;
}

std::uint64_t ms_between(Fault_time from, Fault_time to) {
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(to - from).count();
  return ms < 0 ? 0 : static_cast<std::uint64_t>(ms);
}

}  // namespace

Fault_control_skeleton::Fault_control_skeleton(Fault_plan& plan,
                                               std::function<std::chrono::nanoseconds()> now,
                                               std::function<void()> changed)
    : Skeleton_impl{ara::core::InstanceSpecifier("FaultControl_ProvidedSomeipServiceInstance")},
      plan_{plan},
      now_{std::move(now)},
      changed_{std::move(changed)} {
  using mw::com::cpp_binding::skeleton::provide;
  provide(core(), Fault_control::Kinds, [] { return ready(known_faults()); });
  provide(core(), Fault_control::Faults, [this] { return ready(faults()); });
  provide(core(), Fault_control::Inject,
          [this](const Fault_order& order) { return ready(inject(order)); });
  provide(core(), Fault_control::Clear,
          [this](const Fault_order& order) { return ready(clear(order)); });
}

std::vector<Planned_fault> Fault_control_skeleton::faults() const {
  const auto now = now_();
  std::vector<Planned_fault> result;
  for (const auto& state : plan_.list()) {
    const bool endless = state.end == Fault_time::max();
    result.push_back({.fault = state.text,
                      .inForce = state.in_force,
                      .sinceMs = state.in_force ? ms_between(state.start, now) : 0,
                      .startsInMs = state.in_force ? 0 : ms_between(now, state.start),
                      .endsInMs = endless ? endless_ms : ms_between(now, state.end)});
  }
  return result;
}

Fault_answer Fault_control_skeleton::inject(const Fault_order& order) {
  try {
    plan_.add(parse_fault(order.fault), now_());
  } catch (const std::invalid_argument& error) {
    return {.problem = error.what(), .faults = 0};
  }
  changed_();
  return {.problem = {}, .faults = 1};
}

Fault_answer Fault_control_skeleton::clear(const Fault_order& order) {
  const auto cleared = plan_.clear(order.fault, now_());
  if (cleared == 0 && !order.fault.empty()) {
    return {.problem = "no fault \"" + order.fault.substr(0, 40) + "\" is planned or in force",
            .faults = 0};
  }
  changed_();
  return {.problem = {}, .faults = static_cast<std::uint32_t>(cleared)};
}

}  // namespace gateway
