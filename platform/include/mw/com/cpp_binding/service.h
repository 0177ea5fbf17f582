/// The description of a service interface: a struct with its name, its version and one line per
/// element. The deployment manifest adds ids, ports and timing.
///
///   struct Lamp {
///     static constexpr std::string_view name = "example::Lamp";
///     static constexpr mw::com::cpp_binding::Version version{1, 0};
///     static constexpr mw::com::cpp_binding::Field<Brightness> brightness{"brightness"};
///     static constexpr auto elements = std::tuple{brightness};
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

/// A value with notification. It has get and set if the deployment gives them ids.
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

/// The elements that the deployment must have for a service interface.
template <class Service>
inline constexpr auto elements_of = std::apply(
    [](const auto&... elements) {
      return std::array{tq::com::Element{.kind = elements.kind, .name = elements.name}...};
    },
    Service::elements);

/// Returns "Lamp" for "example::Lamp".
[[nodiscard]] constexpr std::string_view short_name(std::string_view name) {
  const auto colon = name.rfind(':');
  return colon == std::string_view::npos ? name : name.substr(colon + 1);
}

}  // namespace mw::com::cpp_binding
