/// The Geofence service: whether the vehicle is inside a circle.
#pragma once

#include <boost/optional.hpp>
#include <cstdint>
#include <string_view>
#include <tuple>

#include "binding/codec.h"
#include "mw/com/cpp_binding/proxy.h"
#include "mw/com/cpp_binding/skeleton.h"

namespace example::geofence {

enum class Side : std::uint8_t { outside = 0, inside = 1 };
constexpr auto enumerators_of(Side) {
  return std::to_array<binding::Enumerator<Side>>(
      {{Side::outside, "outside"}, {Side::inside, "inside"}});
}

struct State {
  boost::optional<Side> side;
  boost::optional<double> distance;
  boost::optional<std::uint32_t> crossings;
};

struct Geofence {
  static constexpr std::string_view name = "example::geofence::Geofence";
  static constexpr mw::com::cpp_binding::Version version{1, 0};
  static constexpr mw::com::cpp_binding::Field<State> state{"state"};
  static constexpr auto elements = std::tuple{state};
};

}  // namespace example::geofence

/// On the wire each member is optional and has the number that stands before its name.
template <>
struct binding::Description<example::geofence::State> {
  using Record = example::geofence::State;
  static constexpr std::string_view name = "example::geofence::State";
  static constexpr auto entries =
      std::tuple{member(0, "side", &Record::side, "", "of the circle"),
                 member(1, "distance", &Record::distance, "m", "to the centre"),
                 member(2, "crossings", &Record::crossings, "", "of the circle since the start")};
};

namespace example::geofence {

class Geofence_skeleton : public mw::com::cpp_binding::skeleton::Skeleton_impl<Geofence> {
 public:
  explicit Geofence_skeleton(const ara::core::InstanceSpecifier& specifier)
      : Skeleton_impl{specifier} {}
  ~Geofence_skeleton() { disconnect(); }

  mw::com::cpp_binding::skeleton::Element<Geofence::state> state{core()};
};

/// For the consumers of the service.
class Geofence_proxy : public mw::com::cpp_binding::proxy::Proxy_impl<Geofence> {
 public:
  explicit Geofence_proxy(const Handle_type& handle) : Proxy_impl{handle} {}

  mw::com::cpp_binding::proxy::Element<Geofence::state> state{core()};
};

}  // namespace example::geofence
