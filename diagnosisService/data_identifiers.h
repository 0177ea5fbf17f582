/// The data identifiers that a tester can read, each a service of two methods: interfaces,
/// skeletons, proxies and the outputs of Read. docs/data-identifiers.md explains the bytes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "ara/core/future.h"
#include "binding/codec.h"
#include "binding/diagnosis_values.h"
#include "mw/com/cpp_binding/proxy.h"
#include "mw/com/cpp_binding/skeleton.h"

namespace lumo::services::diag {

/// The diagnostic manager's information about a request, such as its source. Not evaluated here.
using Meta_info = std::map<std::string, std::string>;

/// Read output of d_14a0: one status byte per input sensor, in the order of the sensor setup.
struct PositioningStatusInputs {
  static constexpr Status_group group = Status_group::input;
  std::uint8_t gnss = 0;
  std::uint8_t odometry = 0;
  std::uint8_t frontCameraPosition = 0;
  std::uint8_t frontCameraLandmarks = 0;
  std::uint8_t topViewLandmarks = 0;
  std::uint8_t lidarLandmarks = 0;
  std::uint8_t radarLandmarks = 0;
  std::uint8_t map = 0;
  std::uint8_t timeMaster = 0;
  std::uint8_t cameraLaneLines = 0;
  std::uint8_t frontCameraOdometry = 0;
};

/// Read output of d_14a1: one status byte per output.
struct PositioningStatusOutputs {
  static constexpr Status_group group = Status_group::output;
  std::uint8_t mapMatched = 0;
  std::uint8_t deadReckoning = 0;
  std::uint8_t staticOutput = 0;
};

struct Position_state {
  std::uint8_t validity = 0;
  std::uint8_t matching = 0;
};

/// Read output of d_14a2: the last map-matched position. Numbers are big-endian.
struct PositioningMMPos {
  std::array<std::uint8_t, 5> latitude{};
  std::array<std::uint8_t, 5> longitude{};
  std::array<std::uint8_t, 3> altitude{};
  std::array<std::uint8_t, 3> timeOfDay{};
  Position_state state;
};

/// Read output of d_14a3: the 14 system status bytes in order. The last eight are sent as 16-bit
/// values; the high byte is the one with the lower number.
struct PositioningStatusSystem {
  static constexpr Status_group group = Status_group::system;
  std::uint8_t overall = 0;
  std::uint8_t pgf = 0;
  std::uint8_t system2 = 0;
  std::uint8_t lbl = 0;
  std::uint8_t system4 = 0;
  std::uint8_t system5 = 0;
  std::uint16_t system6And7 = 0;
  std::uint16_t system8And9 = 0;
  std::uint16_t system10And11 = 0;
  std::uint16_t mapMatchingAnd13 = 0;
};

/// An element of a consumed service that has or had a fault.
struct Fault_entry {
  Faulty_service service{};
  std::uint8_t element = 0;  ///< place in the interface from 1; 0: the service as a whole
  bool present = false;
  std::uint16_t occurrences = 0;  ///< since the start; stays at its maximum
};
/// Read outputs of d_1190, d_1191 and d_1192: the bytes of a Fault_entry for each affected element.
template <Data_bus_fault Fault>
struct Data_bus_fault_records {
  static constexpr Data_bus_fault fault = Fault;
  std::vector<std::uint8_t> entries;
};
using BDPSomeipDataBusServiceNotAvailable = Data_bus_fault_records<Data_bus_fault::not_available>;
using BDPSomeipDataBusServiceErrorValueReceived =
    Data_bus_fault_records<Data_bus_fault::error_value_received>;
using BDPSomeipDataBusServiceImplausible = Data_bus_fault_records<Data_bus_fault::implausible>;

/// The interface of every data identifier.
template <class Read_output>
struct Data_identifier {
  using Output = Read_output;
  static constexpr mw::com::cpp_binding::Version version{1, 0};
  static constexpr mw::com::cpp_binding::Method<Output(Meta_info)> Read{"Read"};
  static constexpr mw::com::cpp_binding::Method<void(Meta_info)> Cancel{"Cancel"};
  static constexpr auto elements = std::tuple{Read, Cancel};
};

template <class Interface>
class Data_identifier_proxy : public mw::com::cpp_binding::proxy::Proxy_impl<Interface> {
  using Base = mw::com::cpp_binding::proxy::Proxy_impl<Interface>;

 public:
  explicit Data_identifier_proxy(const typename Base::Handle_type& handle) : Base{handle} {}

  mw::com::cpp_binding::proxy::Element<Interface::Read> Read{this->core()};
  mw::com::cpp_binding::proxy::Element<Interface::Cancel> Cancel{this->core()};
};

template <class Interface>
class Data_identifier_skeleton : public mw::com::cpp_binding::skeleton::Skeleton_impl<Interface> {
  using Base = mw::com::cpp_binding::skeleton::Skeleton_impl<Interface>;

 public:
  using Output = typename Interface::Output;

  /// An implementation's destructor must begin with disconnect(), so that afterwards no call
  /// reaches it.
  explicit Data_identifier_skeleton(const ara::core::InstanceSpecifier& specifier)
      : Base{specifier} {
    mw::com::cpp_binding::skeleton::provide(this->core(), Interface::Read,
                                            [this](const Meta_info& info) { return Read(info); });
    mw::com::cpp_binding::skeleton::provide(this->core(), Interface::Cancel,
                                            [this](const Meta_info& info) { return Cancel(info); });
  }
  virtual ~Data_identifier_skeleton() { this->disconnect(); }

  virtual ara::core::Future<Output> Read(const Meta_info& info) = 0;
  virtual ara::core::Future<void> Cancel(const Meta_info& info) = 0;
};

namespace d_14a0 {
struct DataIdentifier_PositioningStatusInputs : Data_identifier<PositioningStatusInputs> {
  static constexpr std::string_view name =
      "lumo::services::diag::d_14a0::DataIdentifier_PositioningStatusInputs";
};
namespace skeleton {
using DataIdentifier_PositioningStatusInputsSkeleton =
    Data_identifier_skeleton<DataIdentifier_PositioningStatusInputs>;
}
}  // namespace d_14a0

namespace d_14a1 {
struct DataIdentifier_PositioningStatusOutputs : Data_identifier<PositioningStatusOutputs> {
  static constexpr std::string_view name =
      "lumo::services::diag::d_14a1::DataIdentifier_PositioningStatusOutputs";
};
namespace skeleton {
using DataIdentifier_PositioningStatusOutputsSkeleton =
    Data_identifier_skeleton<DataIdentifier_PositioningStatusOutputs>;
}
}  // namespace d_14a1

namespace d_14a2 {
struct DataIdentifier_PositioningMMPos : Data_identifier<PositioningMMPos> {
  static constexpr std::string_view name =
      "lumo::services::diag::d_14a2::DataIdentifier_PositioningMMPos";
};
namespace skeleton {
using DataIdentifier_PositioningMMPosSkeleton =
    Data_identifier_skeleton<DataIdentifier_PositioningMMPos>;
}
}  // namespace d_14a2

namespace d_14a3 {
struct DataIdentifier_PositioningStatusSystem : Data_identifier<PositioningStatusSystem> {
  static constexpr std::string_view name =
      "lumo::services::diag::d_14a3::DataIdentifier_PositioningStatusSystem";
};
namespace skeleton {
using DataIdentifier_PositioningStatusSystemSkeleton =
    Data_identifier_skeleton<DataIdentifier_PositioningStatusSystem>;
}
}  // namespace d_14a3

namespace d_1190 {
struct DataIdentifier_BDPSomeipDataBusServiceNotAvailable
    : Data_identifier<BDPSomeipDataBusServiceNotAvailable> {
  static constexpr std::string_view name =
      "lumo::services::diag::d_1190::DataIdentifier_BDPSomeipDataBusServiceNotAvailable";
};
namespace skeleton {
using DataIdentifier_BDPSomeipDataBusServiceNotAvailableSkeleton =
    Data_identifier_skeleton<DataIdentifier_BDPSomeipDataBusServiceNotAvailable>;
}
}  // namespace d_1190

namespace d_1191 {
struct DataIdentifier_BDPSomeipDataBusServiceErrorValueReceived
    : Data_identifier<BDPSomeipDataBusServiceErrorValueReceived> {
  static constexpr std::string_view name =
      "lumo::services::diag::d_1191::DataIdentifier_BDPSomeipDataBusServiceErrorValueReceived";
};
namespace skeleton {
using DataIdentifier_BDPSomeipDataBusServiceErrorValueReceivedSkeleton =
    Data_identifier_skeleton<DataIdentifier_BDPSomeipDataBusServiceErrorValueReceived>;
}
}  // namespace d_1191

namespace d_1192 {
struct DataIdentifier_BDPSomeipDataBusServiceImplausible
    : Data_identifier<BDPSomeipDataBusServiceImplausible> {
  static constexpr std::string_view name =
      "lumo::services::diag::d_1192::DataIdentifier_BDPSomeipDataBusServiceImplausible";
};
namespace skeleton {
using DataIdentifier_BDPSomeipDataBusServiceImplausibleSkeleton =
    Data_identifier_skeleton<DataIdentifier_BDPSomeipDataBusServiceImplausible>;
}
}  // namespace d_1192

/// Identifiers of the system's state.
using Status_identifiers = std::tuple<d_14a0::DataIdentifier_PositioningStatusInputs,
                                      d_14a1::DataIdentifier_PositioningStatusOutputs,
                                      d_14a2::DataIdentifier_PositioningMMPos,
                                      d_14a3::DataIdentifier_PositioningStatusSystem>;
/// Identifiers of the faults of consumed services.
using Fault_identifiers =
    std::tuple<d_1190::DataIdentifier_BDPSomeipDataBusServiceNotAvailable,
               d_1191::DataIdentifier_BDPSomeipDataBusServiceErrorValueReceived,
               d_1192::DataIdentifier_BDPSomeipDataBusServiceImplausible>;
/// All of them. Everything that exists once per identifier is derived from this list.
using Data_identifiers =
    decltype(std::tuple_cat(std::declval<Status_identifiers>(), std::declval<Fault_identifiers>()));

/// Calls `visit.operator()<Interface>()` for each interface of a list.
template <class List, class Visit>
constexpr void for_each_interface(Visit&& visit) {
  [&]<std::size_t... Index>(std::index_sequence<Index...>) {
    (visit.template operator()<std::tuple_element_t<Index, List>>(), ...);
  }
  (std::make_index_sequence<std::tuple_size_v<List>>{});
}

/// Returns "d_14a0" for "lumo::services::diag::d_14a0::DataIdentifier_PositioningStatusInputs".
[[nodiscard]] constexpr std::string_view identifier_of(std::string_view interface) {
  const auto end = interface.rfind("::");
  const auto begin = interface.rfind("::", end - 1) + 2;
  return interface.substr(begin, end - begin);
}

}  // namespace lumo::services::diag

template <>
struct binding::Description<lumo::services::diag::PositioningStatusInputs> {
  using Record = lumo::services::diag::PositioningStatusInputs;
  static constexpr std::string_view name = "lumo::services::diag::PositioningStatusInputs";
  static constexpr auto entries = std::tuple{
      plain("gnss", &Record::gnss, "", "status of POS_Input_GNSS"),
      plain("odometry", &Record::odometry, "", "status of POS_Input_Odometry"),
      plain("frontCameraPosition",
            &Record::frontCameraPosition,
            "",
            "status of POS_Input_Position_FrontCamera"),
      plain("frontCameraLandmarks",
            &Record::frontCameraLandmarks,
            "",
            "status of POS_Input_Landmarks_FrontCamera"),
      plain("topViewLandmarks",
            &Record::topViewLandmarks,
            "",
            "status of POS_Input_Landmarks_TopView"),
      plain("lidarLandmarks", &Record::lidarLandmarks, "", "status of POS_Input_Landmarks_Lidar"),
      plain("radarLandmarks", &Record::radarLandmarks, "", "status of POS_Input_Landmarks_Radar"),
      plain("map", &Record::map, "", "status of POS_Input_Map"),
      plain("timeMaster", &Record::timeMaster, "", "status of POS_Input_Time"),
      plain("cameraLaneLines", &Record::cameraLaneLines, "", "status of POS_Input_BV_Lines"),
      plain("frontCameraOdometry",
            &Record::frontCameraOdometry,
            "",
            "status of POS_Input_Odometry_FrontCamera")};
};

template <>
struct binding::Description<lumo::services::diag::PositioningStatusOutputs> {
  using Record = lumo::services::diag::PositioningStatusOutputs;
  static constexpr std::string_view name = "lumo::services::diag::PositioningStatusOutputs";
  static constexpr auto entries = std::tuple{
      plain("mapMatched", &Record::mapMatched, "", "status of POS_Output_MapMatched"),
      plain("deadReckoning", &Record::deadReckoning, "", "status of POS_Output_DeadReckoning"),
      plain("staticOutput", &Record::staticOutput, "", "status of POS_Output_Static")};
};

template <>
struct binding::Description<lumo::services::diag::Position_state> {
  using Record = lumo::services::diag::Position_state;
  static constexpr std::string_view name = "lumo::services::diag::PositionState";
  static constexpr auto entries = std::tuple{
      plain("validity",
            &Record::validity,
            "",
            "bit 0 latitude, 1 longitude, 2 altitude, 3 time are valid; bits 7 to 4 statusMap"),
      plain("matching",
            &Record::matching,
            "",
            "bits 3 to 0 statusMapMatching, bits 7 to 4 positionSource")};
};

template <>
struct binding::Description<lumo::services::diag::PositioningMMPos> {
  using Record = lumo::services::diag::PositioningMMPos;
  static constexpr std::string_view name = "lumo::services::diag::PositioningMMPos";
  static constexpr auto entries = std::tuple{
      plain("latitude", &Record::latitude, "1e-9 deg", "signed, WGS 84, north positive"),
      plain("longitude", &Record::longitude, "1e-9 deg", "signed, WGS 84, east positive"),
      plain("altitude", &Record::altitude, "cm", "signed, above mean sea level"),
      plain("timeOfDay", &Record::timeOfDay, "10 ms", "since midnight of the precise local time"),
      plain("state", &Record::state, "", "what is valid, and the state of the map matching")};
};

template <>
struct binding::Description<lumo::services::diag::PositioningStatusSystem> {
  using Record = lumo::services::diag::PositioningStatusSystem;
  static constexpr std::string_view name = "lumo::services::diag::PositioningStatusSystem";
  static constexpr auto entries = std::tuple{
      plain("overall",
            &Record::overall,
            "",
            "status of POS_Overall_System and POS_LaneMatching_System"),
      plain("pgf", &Record::pgf, "", "status of POS_PGF_System"),
      plain("system2", &Record::system2, "", "reserved system function 2"),
      plain("lbl", &Record::lbl, "", "status of POS_LBL_System"),
      plain("system4", &Record::system4, "", "reserved system function 4"),
      plain("system5", &Record::system5, "", "reserved system function 5"),
      plain("system6And7", &Record::system6And7, "", "reserved system functions 6 and 7"),
      plain("system8And9", &Record::system8And9, "", "reserved system functions 8 and 9"),
      plain("system10And11", &Record::system10And11, "", "reserved system functions 10 and 11"),
      plain("mapMatchingAnd13",
            &Record::mapMatchingAnd13,
            "",
            "status of POS_MapMatching_System (high byte), reserved system function 13")};
};

template <>
struct binding::Description<lumo::services::diag::Fault_entry> {
  using Record = lumo::services::diag::Fault_entry;
  static constexpr std::string_view name = "fault";
  static constexpr auto entries =
      std::tuple{plain("service", &Record::service), plain("element", &Record::element),
                 plain("present", &Record::present), plain("occurrences", &Record::occurrences)};
};
/// An entry has no length field of its own.
template <>
inline constexpr binding::Serialization_settings
    binding::settings_of<lumo::services::diag::Fault_entry>{.structure_length_field_size = 0};

template <lumo::services::diag::Data_bus_fault Fault>
struct binding::Description<lumo::services::diag::Data_bus_fault_records<Fault>> {
  using Record = lumo::services::diag::Data_bus_fault_records<Fault>;
  static constexpr std::string_view name = std::array<std::string_view, 3>{
      "lumo::services::diag::BDPSomeipDataBusServiceNotAvailable",
      "lumo::services::diag::BDPSomeipDataBusServiceErrorValueReceived",
      "lumo::services::diag::BDPSomeipDataBusServiceImplausible"}[static_cast<std::size_t>(Fault)];
  static constexpr auto entries = std::tuple{
      plain("entries",
            &Record::entries,
            "",
            "service, element, 1 while the fault is present, occurrences (16 bit); repeated")};
};
