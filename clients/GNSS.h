/// The GNSS service: interface, proxy for its consumers, skeleton for a source.
#pragma once

#include <vector>

#include "binding/codec.h"
#include "clients/gnss_records.h"
#include "mw/com/cpp_binding/proxy.h"
#include "mw/com/cpp_binding/skeleton.h"

namespace lumo::services::gnss {

struct GNSS {
  template <class Value>
  using Field = mw::com::cpp_binding::Field<Value>;

  static constexpr std::string_view name = "lumo::services::gnss::GNSS";
  static constexpr mw::com::cpp_binding::Version version{3, 0};
  static constexpr Field<std::vector<datatypes::DT_positions_struct>> positions{"positions"};
  static constexpr Field<std::vector<datatypes::DT_positionsQuality_struct>> positionsQuality{
      "positionsQuality"};
  static constexpr Field<std::vector<datatypes::DT_posGnssSatInfos_struct>> posGnssSatInfos{
      "posGnssSatInfos"};
  static constexpr auto elements = std::tuple{positions, positionsQuality, posGnssSatInfos};
};

namespace proxy {
class GNSSProxy : public mw::com::cpp_binding::proxy::Proxy_impl<GNSS> {
 public:
  explicit GNSSProxy(const Handle_type& handle) : Proxy_impl{handle} {}

  mw::com::cpp_binding::proxy::Element<GNSS::positions> positions{core()};
  mw::com::cpp_binding::proxy::Element<GNSS::positionsQuality> positionsQuality{core()};
  mw::com::cpp_binding::proxy::Element<GNSS::posGnssSatInfos> posGnssSatInfos{core()};
};
}  // namespace proxy

namespace skeleton {
class GNSSSkeleton : public mw::com::cpp_binding::skeleton::Skeleton_impl<GNSS> {
 public:
  explicit GNSSSkeleton(const ara::core::InstanceSpecifier& specifier) : Skeleton_impl{specifier} {}
  ~GNSSSkeleton() { disconnect(); }

  mw::com::cpp_binding::skeleton::Element<GNSS::positions> positions{core()};
  mw::com::cpp_binding::skeleton::Element<GNSS::positionsQuality> positionsQuality{core()};
  mw::com::cpp_binding::skeleton::Element<GNSS::posGnssSatInfos> posGnssSatInfos{core()};
};
}  // namespace skeleton

}  // namespace lumo::services::gnss
