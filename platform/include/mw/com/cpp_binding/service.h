/// How a service interface is described: a struct with its name, its version and one line per
/// element. Ids, ports and timing are not here; the deployment manifest has them.
///
///   struct GNSS {
///     static constexpr std::string_view name = "lumo::services::gnss::GNSS";
///     static constexpr mw::com::cpp_binding::Version version{3, 0};
///     static constexpr mw::com::cpp_binding::Field<std::vector<Position>> positions{"positions"};
///     static constexpr auto elements = std::tuple{positions};
///   };
#pragma once

#include <array>
#include <cstdint>
#include <string_view>
#include <tuple>

#include "tq/com/runtime.h"

namespace mw::com::cpp_binding {

struct Version {
  std::uint16_t major;
  std::uint16_t minor;

  [[nodiscard]] constexpr std::uint32_t packed() const {
    return (static_cast<std::uint32_t>(major) << 16U) | minor;
  }
};

/// A value with notification, and with get and set as far as the deployment gives them ids.
template <class Value>
struct Field {
  using value_type = Value;
  template <class Side>
  using Class_of_side = typename Side::template Field<Value>;
  static constexpr auto kind = tq::com::Element_kind::field;
  std::string_view name;
};

template <class Value>
struct Event {
  using value_type = Value;
  template <class Side>
  using Class_of_side = typename Side::template Event<Value>;
  static constexpr auto kind = tq::com::Element_kind::event;
  std::string_view name;
};

template <class Signature>
struct Method;
template <class Output, class... Inputs>
struct Method<Output(Inputs...)> {
  using output_type = Output;
  template <class Side>
  using Class_of_side = typename Side::template Method<Output(Inputs...)>;
  static constexpr auto kind = tq::com::Element_kind::method;
  std::string_view name;
};

/// What the deployment has to have of a service interface.
template <class Service>
inline constexpr auto elements_of = std::apply(
    [](const auto&... elements) {
      return std::array{tq::com::Element{.kind = elements.kind, .name = elements.name}...};
    },
    Service::elements);

/// "GNSS" of "lumo::services::gnss::GNSS".
[[nodiscard]] constexpr std::string_view short_name(std::string_view name) {
  const auto colon = name.rfind(':');
  return colon == std::string_view::npos ? name : name.substr(colon + 1);
}

}  // namespace mw::com::cpp_binding
