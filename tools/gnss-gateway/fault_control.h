/// The service that makes faults in a running gateway: its records, interface, skeleton and proxy.
/// It is not a function of the vehicle, and offered only with --control.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "ara/core/future.h"
#include "binding/codec.h"
#include "mw/com/cpp_binding/proxy.h"
#include "mw/com/cpp_binding/skeleton.h"

namespace gateway {

class Fault_plan;

/// A kind of fault and its value.
struct Known_fault {
  std::string name;
  std::string meaning;
  std::string unit;
  double low = 0;
  double high = 0;
  std::vector<std::string> choices;
  std::string usual;
};

/// The end of a fault that only a request ends.
inline constexpr auto endless_ms = std::numeric_limits<std::uint64_t>::max();

struct Planned_fault {
  std::string fault;
  bool inForce = false;
  std::uint64_t sinceMs = 0;
  std::uint64_t startsInMs = 0;
  std::uint64_t endsInMs = 0;
};

struct Fault_order {
  std::string fault;
};

struct Fault_answer {
  std::string problem;
  std::uint32_t faults = 0;
};

}  // namespace gateway

template <>
struct binding::Description<gateway::Known_fault> {
  using Record = gateway::Known_fault;
  static constexpr std::string_view name = "gateway::Known_fault";
  static constexpr auto entries = std::tuple{
      plain("name", &Record::name),
      plain("meaning", &Record::meaning),
      plain("unit", &Record::unit, "", "of its value, a number; empty: it has no number"),
      plain("low", &Record::low, "", "least number"),
      plain("high", &Record::high, "", "greatest"),
      plain("choices", &Record::choices, "", "its value is one of these words; empty: it is none"),
      plain("usual", &Record::usual, "", "value without one in the order; empty: it has no value")};
};

template <>
struct binding::Description<gateway::Planned_fault> {
  using Record = gateway::Planned_fault;
  static constexpr std::string_view name = "gateway::Planned_fault";
  static constexpr auto entries =
      std::tuple{plain("fault", &Record::fault, "", "as it was ordered"),
                 plain("inForce", &Record::inForce, "", "false: it waits for its start"),
                 plain("sinceMs", &Record::sinceMs, "ms", "ago: its start; 0 while it waits"),
                 plain("startsInMs", &Record::startsInMs, "ms", "0 while it is in force"),
                 plain("endsInMs", &Record::endsInMs, "ms", "2^64 - 1: when it is cleared")};
};

template <>
struct binding::Description<gateway::Fault_order> {
  using Record = gateway::Fault_order;
  static constexpr std::string_view name = "gateway::Fault_order";
  static constexpr auto entries = std::tuple{plain("fault",
                                                   &Record::fault,
                                                   "",
                                                   "NAME[=VALUE][@START[+DURATION]], in seconds; "
                                                   "to clear: NAME, a whole order, or nothing for "
                                                   "all")};
};

template <>
struct binding::Description<gateway::Fault_answer> {
  using Record = gateway::Fault_answer;
  static constexpr std::string_view name = "gateway::Fault_answer";
  static constexpr auto entries =
      std::tuple{plain("problem", &Record::problem, "", "reason of a refusal; empty: accepted"),
                 plain("faults", &Record::faults, "", "number of those added or cleared")};
};

namespace gateway {

struct Fault_control {
  static constexpr std::string_view name = "gateway::FaultControl";
  static constexpr mw::com::cpp_binding::Version version{1, 0};
  static constexpr mw::com::cpp_binding::Method<std::vector<Known_fault>()> Kinds{"Kinds"};
  static constexpr mw::com::cpp_binding::Method<std::vector<Planned_fault>()> Faults{"Faults"};
  static constexpr mw::com::cpp_binding::Method<Fault_answer(Fault_order)> Inject{"Inject"};
  static constexpr mw::com::cpp_binding::Method<Fault_answer(Fault_order)> Clear{"Clear"};
  static constexpr auto elements = std::tuple{Kinds, Faults, Inject, Clear};
};

class Fault_control_proxy : public mw::com::cpp_binding::proxy::Proxy_impl<Fault_control> {
 public:
  explicit Fault_control_proxy(const Handle_type& handle) : Proxy_impl{handle} {}

  mw::com::cpp_binding::proxy::Element<Fault_control::Kinds> Kinds{core()};
  mw::com::cpp_binding::proxy::Element<Fault_control::Faults> Faults{core()};
  mw::com::cpp_binding::proxy::Element<Fault_control::Inject> Inject{core()};
  mw::com::cpp_binding::proxy::Element<Fault_control::Clear> Clear{core()};
};

/// The skeleton is in the gateway only.
class Fault_control_skeleton : public mw::com::cpp_binding::skeleton::Skeleton_impl<Fault_control> {
 public:
  /// `now` is the time of the plan. `changed` is called after each change. Both are called on
  /// workers; they and the plan outlive the skeleton. Throws std::runtime_error if the manifest
  /// does not deploy the service.
  Fault_control_skeleton(Fault_plan& plan,
                         std::function<std::chrono::nanoseconds()> now,
                         std::function<void()> changed);
  ~Fault_control_skeleton() { disconnect(); }

 private:
  [[nodiscard]] std::vector<Planned_fault> faults() const;
  [[nodiscard]] Fault_answer inject(const Fault_order& order);
  [[nodiscard]] Fault_answer clear(const Fault_order& order);

  Fault_plan& plan_;
  const std::function<std::chrono::nanoseconds()> now_;
  const std::function<void()> changed_;
};

}  // namespace gateway
