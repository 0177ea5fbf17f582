/// The GNSS service with payloads as bytes, so that a fault may break them.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

#include "clients/GNSS.h"

namespace gateway {

/// An encoded value of a field.
struct Encoded_payload {
  std::vector<std::byte> bytes;
};

/// The notifications of one instant. What is absent is not sent.
struct Encoded_instant {
  std::optional<Encoded_payload> positions;
  std::optional<Encoded_payload> quality;
  std::optional<Encoded_payload> satellites;
};

/// lumo::services::gnss::GNSS as it travels.
struct Encoded_gnss {
  using Described = lumo::services::gnss::GNSS;
  using Field = mw::com::cpp_binding::Field<Encoded_payload>;

  static constexpr std::string_view name = Described::name;
  static constexpr auto version = Described::version;
  static constexpr Field positions{Described::positions.name};
  static constexpr Field positionsQuality{Described::positionsQuality.name};
  static constexpr Field posGnssSatInfos{Described::posGnssSatInfos.name};
  static constexpr auto elements = std::tuple{positions, positionsQuality, posGnssSatInfos};
};

}  // namespace gateway

template <>
struct mw::com::cpp_binding::Serialization<gateway::Encoded_payload> {
  static void encode(const gateway::Encoded_payload& value, std::vector<std::byte>& out) {
    out.insert(out.end(), value.bytes.begin(), value.bytes.end());
  }
  static std::span<const std::byte> encode_into(const gateway::Encoded_payload& value,
                                                std::vector<std::byte>& /*scratch*/) {
    return value.bytes;
  }
};

namespace gateway {

class Encoded_gnss_skeleton : public mw::com::cpp_binding::skeleton::Skeleton_impl<Encoded_gnss> {
 public:
  explicit Encoded_gnss_skeleton(const ara::core::InstanceSpecifier& specifier)
      : Skeleton_impl{specifier} {}
  ~Encoded_gnss_skeleton() { disconnect(); }

  mw::com::cpp_binding::skeleton::Element<Encoded_gnss::positions> positions{core()};
  mw::com::cpp_binding::skeleton::Element<Encoded_gnss::positionsQuality> positionsQuality{core()};
  mw::com::cpp_binding::skeleton::Element<Encoded_gnss::posGnssSatInfos> posGnssSatInfos{core()};
};

}  // namespace gateway
