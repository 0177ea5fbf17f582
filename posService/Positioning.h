/// The Positioning service: interface, skeleton for the application, proxy for its consumers.
#pragma once

#include <vector>

#include "binding/codec.h"
#include "mw/com/cpp_binding/proxy.h"
#include "mw/com/cpp_binding/skeleton.h"
#include "posService/positioning_records.h"

namespace lumo::services::positioning {

struct Positioning {
  template <class Value>
  using Field = mw::com::cpp_binding::Field<Value>;

  static constexpr std::string_view name = "lumo::services::positioning::Positioning";
  static constexpr mw::com::cpp_binding::Version version{3, 0};
  static constexpr Field<std::vector<datatypes::DT_positions_struct>> positions{"positions"};
  static constexpr Field<std::vector<datatypes::DT_posMapInfo_struct>> posMapInfo{"posMapInfo"};
  static constexpr auto elements = std::tuple{positions, posMapInfo};
};

namespace proxy {
class PositioningProxy : public mw::com::cpp_binding::proxy::Proxy_impl<Positioning> {
 public:
  explicit PositioningProxy(const Handle_type& handle) : Proxy_impl{handle} {}

  mw::com::cpp_binding::proxy::Element<Positioning::positions> positions{core()};
  mw::com::cpp_binding::proxy::Element<Positioning::posMapInfo> posMapInfo{core()};
};
}  // namespace proxy

namespace skeleton {
class PositioningSkeleton : public mw::com::cpp_binding::skeleton::Skeleton_impl<Positioning> {
 public:
  explicit PositioningSkeleton(const ara::core::InstanceSpecifier& specifier)
      : Skeleton_impl{specifier} {}
  ~PositioningSkeleton() { disconnect(); }

  mw::com::cpp_binding::skeleton::Element<Positioning::positions> positions{core()};
  mw::com::cpp_binding::skeleton::Element<Positioning::posMapInfo> posMapInfo{core()};
};
}  // namespace skeleton

}  // namespace lumo::services::positioning
