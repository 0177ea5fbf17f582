/// The Time service: interface, proxy for its consumers, skeleton for a source.
#pragma once

#include <vector>

#include "binding/codec.h"
#include "clients/time_records.h"
#include "mw/com/cpp_binding/proxy.h"
#include "mw/com/cpp_binding/skeleton.h"

namespace lumo::services::time {

struct Time {
  template <class Value>
  using Field = mw::com::cpp_binding::Field<Value>;

  static constexpr std::string_view name = "lumo::services::time::Time";
  static constexpr mw::com::cpp_binding::Version version{4, 1};
  static constexpr Field<std::vector<datatypes::DT_times_struct>> times{"times"};
  static constexpr Field<std::vector<datatypes::DT_timeSettings_struct>> timeSettings{
      "timeSettings"};
  static constexpr auto elements = std::tuple{times, timeSettings};
};

namespace proxy {
class TimeProxy : public mw::com::cpp_binding::proxy::Proxy_impl<Time> {
 public:
  explicit TimeProxy(const Handle_type& handle) : Proxy_impl{handle} {}

  mw::com::cpp_binding::proxy::Element<Time::times> times{core()};
  mw::com::cpp_binding::proxy::Element<Time::timeSettings> timeSettings{core()};
};
}  // namespace proxy

namespace skeleton {
class TimeSkeleton : public mw::com::cpp_binding::skeleton::Skeleton_impl<Time> {
 public:
  explicit TimeSkeleton(const ara::core::InstanceSpecifier& specifier) : Skeleton_impl{specifier} {}
  ~TimeSkeleton() { disconnect(); }

  mw::com::cpp_binding::skeleton::Element<Time::times> times{core()};
  mw::com::cpp_binding::skeleton::Element<Time::timeSettings> timeSettings{core()};
};
}  // namespace skeleton

}  // namespace lumo::services::time
