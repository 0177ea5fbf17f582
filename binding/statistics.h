/// The service that lets an integrator look into the running process: its records, interface,
/// skeleton and proxy. It is not a function of the vehicle.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "ara/core/future.h"
#include "binding/application_state.h"
#include "binding/codec.h"
#include "binding/diagnosis_values.h"
#include "binding/position_ages.h"
#include "mw/com/cpp_binding/proxy.h"
#include "mw/com/cpp_binding/skeleton.h"
#include "mw/com/statistics.h"

namespace binding::detail {

/// "0 input, 1 output, " for an enumeration whose values are below 10.
template <Named_enumeration E>
inline constexpr auto value_list = [] {
  constexpr auto size = [] {
    std::size_t sum = 0;
    for (const auto& one : enumerators<E>)
      sum += one.name.size() + 4;
    return sum;
  };
  std::array<char, size()> text{};
  auto end = text.begin();
  for (const auto& one : enumerators<E>) {
    *end++ = static_cast<char>('0' + static_cast<int>(one.value));
    *end++ = ' ';
    end = std::ranges::copy(one.name, end).out;
    *end++ = ',';
    *end++ = ' ';
  }
  return text;
}();
/// "0 input, 1 output", as the meaning of a member that carries such a value as a number.
template <Named_enumeration E>
inline constexpr std::string_view values_of{value_list<E>.data(), value_list<E>.size() - 2};

}  // namespace binding::detail

template <>
struct binding::Description<mw::com::runtime::Counter> {
  using Record = mw::com::runtime::Counter;
  static constexpr std::string_view name = "mw::com::runtime::Counter";
  static constexpr auto entries =
      std::tuple{plain("name", &Record::name, "", "such as datagramsReceived"),
                 plain("value", &Record::value, "", "since the start")};
};

template <>
struct binding::Description<mw::com::runtime::Process_usage> {
  using Record = mw::com::runtime::Process_usage;
  static constexpr std::string_view name = "mw::com::runtime::Process_usage";
  static constexpr auto entries =
      std::tuple{plain("residentBytes", &Record::residentBytes, "B", "memory in use"),
                 plain("threads", &Record::threads, "", "threads of the process"),
                 plain("uptimeMs", &Record::uptimeMs, "ms", "since the start of the process")};
};

template <>
struct binding::Description<mw::com::runtime::Clock_state> {
  using Record = mw::com::runtime::Clock_state;
  static constexpr std::string_view name = "mw::com::runtime::Clock_state";
  static constexpr auto entries =
      std::tuple{plain("synchronised", &Record::synchronised, "", "a daemon disciplines the clock"),
                 plain("estimatedErrorUs", &Record::estimatedErrorUs, "us", "while synchronised"),
                 plain("maximumErrorUs", &Record::maximumErrorUs, "us", "while synchronised"),
                 plain("taiOffsetS", &Record::taiOffsetS, "s", "TAI minus UTC; 0: not known"),
                 plain("steps", &Record::steps, "", "sudden changes since the start")};
};

template <>
struct binding::Description<binding::Age> {
  using Record = binding::Age;
  static constexpr std::string_view name = "binding::Age";
  static constexpr auto entries =
      std::tuple{plain("name", &Record::name, "", "such as stampToArrival"),
                 plain("windowS", &Record::windowS, "s", "the last seconds; 0: since the start"),
                 plain("count", &Record::count, "", "positions"),
                 plain("minNs", &Record::minNs, "ns", "0 without a count, as the following ones"),
                 plain("p50Ns", &Record::p50Ns, "ns", "median"),
                 plain("p99Ns", &Record::p99Ns, "ns", "99th percentile"),
                 plain("p999Ns", &Record::p999Ns, "ns", "99.9th percentile"),
                 plain("maxNs", &Record::maxNs, "ns", ""),
                 plain("sumNs", &Record::sumNs, "ns", "of all ages")};
};

template <>
struct binding::Description<binding::Stamp_counts> {
  using Record = binding::Stamp_counts;
  static constexpr std::string_view name = "binding::Stamp_counts";
  static constexpr auto entries = std::tuple{
      plain("notifications", &Record::notifications, "", "of positions, since the start"),
      plain("missing", &Record::missing, "", "without a stamp"),
      plain("inFuture", &Record::inFuture, "", "later than the arrival; not among the ages"),
      plain("standingStill", &Record::standingStill, "", "the same stamp as before"),
      plain("jumped", &Record::jumped, "", "backwards, or more than 1 s off")};
};

template <>
struct binding::Description<mw::com::runtime::Offered_instance> {
  using Record = mw::com::runtime::Offered_instance;
  static constexpr std::string_view name = "mw::com::runtime::Offered_instance";
  static constexpr auto entries = std::tuple{plain("service", &Record::service),
                                             plain("serviceId", &Record::serviceId),
                                             plain("instance", &Record::instance),
                                             plain("majorVersion", &Record::majorVersion),
                                             plain("minorVersion", &Record::minorVersion),
                                             plain("address", &Record::address),
                                             plain("udpPort", &Record::udpPort, "", "0: none"),
                                             plain("tcpPort", &Record::tcpPort, "", "0: none")};
};

template <>
struct binding::Description<mw::com::runtime::Subscriber> {
  using Record = mw::com::runtime::Subscriber;
  static constexpr std::string_view name = "mw::com::runtime::Subscriber";
  static constexpr auto entries =
      std::tuple{plain("serviceId", &Record::serviceId),
                 plain("instance", &Record::instance),
                 plain("eventGroup", &Record::eventGroup),
                 plain("address", &Record::address),
                 plain("udpPort", &Record::udpPort, "", "0: none"),
                 plain("tcpPort", &Record::tcpPort, "", "0: none"),
                 plain("subscribed", &Record::subscribed, "", "false: refused"),
                 plain("sinceMs", &Record::sinceMs, "ms", "ago"),
                 plain("ttlLeftMs", &Record::ttlLeftMs, "ms", "2^64 - 1: it does not end"),
                 plain("sent", &Record::sent, "", "notifications"),
                 plain("refused", &Record::refused, "", "attempts"),
                 plain("cause", &Record::cause, "", "of the last refusal")};
};

template <>
struct binding::Description<mw::com::runtime::Consumed_service> {
  using Record = mw::com::runtime::Consumed_service;
  static constexpr std::string_view name = "mw::com::runtime::Consumed_service";
  static constexpr auto entries = std::tuple{
      plain("service", &Record::service),
      plain("serviceId", &Record::serviceId),
      plain("instance", &Record::instance, "", "found or wanted; 0xFFFF: any"),
      plain("majorVersion", &Record::majorVersion),
      plain("found", &Record::found, "", "it is offered"),
      plain("address", &Record::address),
      plain("udpPort", &Record::udpPort, "", "0: none"),
      plain("tcpPort", &Record::tcpPort, "", "0: none"),
      plain("sinceMs", &Record::sinceMs, "ms", "ago: found, lost or searched for"),
      plain("ttlLeftMs", &Record::ttlLeftMs, "ms", "of the offer; 2^64 - 1: it does not end"),
      plain("cause", &Record::cause, "", "why it is not found, or cannot be used completely")};
};

template <>
struct binding::Description<mw::com::runtime::Consumed_event_group> {
  using Record = mw::com::runtime::Consumed_event_group;
  static constexpr std::string_view name = "mw::com::runtime::Consumed_event_group";
  static constexpr auto entries = std::tuple{
      plain("serviceId", &Record::serviceId),
      plain("instance", &Record::instance),
      plain("eventGroup", &Record::eventGroup),
      plain("connected", &Record::connected, "", "over TCP: the connection stands"),
      plain("subscribed", &Record::subscribed, "", "acknowledged"),
      plain("sinceMs", &Record::sinceMs, "ms", "ago: the last change of subscribed"),
      plain("lastNotificationMs", &Record::lastNotificationMs, "ms", "ago; 2^64 - 1: none yet"),
      plain("cause", &Record::cause, "", "why no data comes")};
};

template <>
struct binding::Description<mw::com::runtime::Peers> {
  using Record = mw::com::runtime::Peers;
  static constexpr std::string_view name = "mw::com::runtime::Peers";
  static constexpr auto entries =
      std::tuple{plain("offered", &Record::offered, "", "by this process"),
                 plain("subscribers", &Record::subscribers, "", "of these instances"),
                 plain("services", &Record::services, "", "that this process looks for"),
                 plain("eventGroups", &Record::eventGroups, "", "to which it subscribes")};
};

template <>
struct binding::Description<binding::Status_age> {
  using Record = binding::Status_age;
  static constexpr std::string_view name = "binding::Status_age";
  static constexpr auto entries = std::tuple{
      plain("group", &Record::group, "", detail::values_of<lumo::services::diag::Status_group>),
      plain("byte", &Record::byte, "", "within the group"),
      plain("status", &Record::status, "", detail::values_of<lumo::services::diag::Status>),
      plain("sinceMs", &Record::sinceMs, "ms", "ago: the last change")};
};

template <>
struct binding::Description<binding::Fault_age> {
  using Record = binding::Fault_age;
  static constexpr std::string_view name = "binding::Fault_age";
  static constexpr auto entries = std::tuple{
      plain("fault", &Record::fault, "", detail::values_of<lumo::services::diag::Data_bus_fault>),
      plain(
          "service", &Record::service, "", detail::values_of<lumo::services::diag::Faulty_service>),
      plain("element", &Record::element, "", "place in the interface from 1; 0: the service"),
      plain("present", &Record::present, "", "now"),
      plain("occurrences", &Record::occurrences, "", "since the start"),
      plain("sinceMs", &Record::sinceMs, "ms", "ago: it appeared or disappeared")};
};

template <>
struct binding::Description<binding::Diagnosis_state> {
  using Record = binding::Diagnosis_state;
  static constexpr std::string_view name = "binding::Diagnosis_state";
  static constexpr auto entries =
      std::tuple{plain("statuses", &Record::statuses, "", "of inputs, outputs and functions"),
                 plain("faults", &Record::faults, "", "of the consumed services")};
};

template <>
struct binding::Description<binding::Setting_in_force> {
  using Record = binding::Setting_in_force;
  static constexpr std::string_view name = "binding::Setting_in_force";
  static constexpr auto entries =
      std::tuple{plain("key", &Record::key), plain("value", &Record::value, "", "as JSON"),
                 plain("stored", &Record::stored, "", "false: the default holds")};
};

template <>
struct binding::Description<binding::Log_context_level> {
  using Record = binding::Log_context_level;
  static constexpr std::string_view name = "binding::Log_context_level";
  static constexpr auto entries = std::tuple{
      plain("context", &Record::context, "", "such as GNSS"),
      plain("level", &Record::level, "", "off, fatal, error, warn, info, debug, verbose")};
};

template <>
struct binding::Description<binding::Log_line> {
  using Record = binding::Log_line;
  static constexpr std::string_view name = "binding::Log_line";
  static constexpr auto entries =
      std::tuple{plain("timeUs", &Record::timeUs, "us", "since 1970, on the system clock"),
                 plain("level", &Record::level, "", "fatal, error, warn, info, debug, verbose"),
                 plain("context", &Record::context, "", "such as GNSS"),
                 plain("text", &Record::text, "", "at most 1024 bytes")};
};

template <>
struct binding::Description<binding::Log_lines> {
  using Record = binding::Log_lines;
  static constexpr std::string_view name = "binding::Log_lines";
  static constexpr auto entries = std::tuple{
      plain("next", &Record::next, "", "number of the line to ask for next"),
      plain("lost", &Record::lost, "", "lines before the first one here, no longer kept"),
      plain("lines", &Record::lines, "", "the oldest first; more may follow")};
};

namespace binding {

struct Statistics {
  using Counters_result = std::vector<mw::com::runtime::Counter>;
  using Process_result = mw::com::runtime::Process_usage;
  using Ages_result = std::vector<Age>;
  using Stamps_result = Stamp_counts;
  using Clock_result = mw::com::runtime::Clock_state;
  using Peers_result = mw::com::runtime::Peers;
  using Settings_result = std::vector<Setting_in_force>;
  using Log_levels_result = std::vector<Log_context_level>;

  static constexpr std::string_view name = "mw::com::runtime::Statistics";
  static constexpr mw::com::cpp_binding::Version version{1, 0};
  static constexpr mw::com::cpp_binding::Method<Counters_result()> Counters{"Counters"};
  static constexpr mw::com::cpp_binding::Method<Process_result()> Process{"Process"};
  static constexpr mw::com::cpp_binding::Method<Ages_result()> Ages{"Ages"};
  static constexpr mw::com::cpp_binding::Method<Stamps_result()> Stamps{"Stamps"};
  static constexpr mw::com::cpp_binding::Method<Clock_result()> Clock{"Clock"};
  static constexpr mw::com::cpp_binding::Method<Peers_result()> Peers{"Peers"};
  static constexpr mw::com::cpp_binding::Method<Diagnosis_state()> Diagnosis{"Diagnosis"};
  static constexpr mw::com::cpp_binding::Method<Settings_result()> Settings{"Settings"};
  static constexpr mw::com::cpp_binding::Method<Log_levels_result()> LogLevels{"LogLevels"};
  /// Returns the levels of the contexts that it set: none for an unknown context or level.
  static constexpr mw::com::cpp_binding::Method<Log_levels_result(Log_context_level)> SetLogLevel{
      "SetLogLevel"};
  /// Returns the lines from a number on. For ten seconds after each call every line is kept, else
  /// only those of level warn and above, and the first ones.
  static constexpr mw::com::cpp_binding::Method<Log_lines(std::uint64_t)> LogLines{"LogLines"};
  static constexpr auto elements =
      std::tuple{Counters,  Process,  Ages,      Stamps,      Clock,   Peers,
                 Diagnosis, Settings, LogLevels, SetLogLevel, LogLines};
};

class Statistics_proxy : public mw::com::cpp_binding::proxy::Proxy_impl<Statistics> {
 public:
  explicit Statistics_proxy(const Handle_type& handle) : Proxy_impl{handle} {}

  mw::com::cpp_binding::proxy::Element<Statistics::Counters> Counters{core()};
  mw::com::cpp_binding::proxy::Element<Statistics::Process> Process{core()};
  mw::com::cpp_binding::proxy::Element<Statistics::Ages> Ages{core()};
  mw::com::cpp_binding::proxy::Element<Statistics::Stamps> Stamps{core()};
  mw::com::cpp_binding::proxy::Element<Statistics::Clock> Clock{core()};
  mw::com::cpp_binding::proxy::Element<Statistics::Peers> Peers{core()};
  mw::com::cpp_binding::proxy::Element<Statistics::Diagnosis> Diagnosis{core()};
  mw::com::cpp_binding::proxy::Element<Statistics::Settings> Settings{core()};
  mw::com::cpp_binding::proxy::Element<Statistics::LogLevels> LogLevels{core()};
  mw::com::cpp_binding::proxy::Element<Statistics::SetLogLevel> SetLogLevel{core()};
  mw::com::cpp_binding::proxy::Element<Statistics::LogLines> LogLines{core()};
};

/// The data of the application that the service returns. The references, and all objects that the
/// function uses, outlive the service.
struct Statistics_sources {
  const Position_ages& ages;
  const mw::com::runtime::Clock_watch& clock;
  std::function<Diagnosis_state()> diagnosis;
  std::vector<Setting_in_force> settings;
};

/// Answers with the counters, usage, peers and log of this process, and with its sources.
class Statistics_skeleton : public mw::com::cpp_binding::skeleton::Skeleton_impl<Statistics> {
 public:
  /// The instance "Statistics_ProvidedSomeipServiceInstance". Throws std::runtime_error if the
  /// manifest does not have it.
  explicit Statistics_skeleton(Statistics_sources sources);
  ~Statistics_skeleton() { disconnect(); }

  [[nodiscard]] ara::core::Future<Statistics::Counters_result> Counters();
  [[nodiscard]] ara::core::Future<Statistics::Process_result> Process();
  [[nodiscard]] ara::core::Future<Statistics::Ages_result> Ages();
  [[nodiscard]] ara::core::Future<Statistics::Stamps_result> Stamps();
  [[nodiscard]] ara::core::Future<Statistics::Clock_result> Clock();
  [[nodiscard]] ara::core::Future<Statistics::Peers_result> Peers();
  [[nodiscard]] ara::core::Future<Diagnosis_state> Diagnosis();
  [[nodiscard]] ara::core::Future<Statistics::Settings_result> Settings();
  [[nodiscard]] ara::core::Future<Statistics::Log_levels_result> LogLevels();
  [[nodiscard]] ara::core::Future<Statistics::Log_levels_result> SetLogLevel(
      const Log_context_level& wanted);
  [[nodiscard]] ara::core::Future<Log_lines> LogLines(std::uint64_t from);

 private:
  const Statistics_sources sources_;
};

/// Offers the service until the result is destroyed. Returns null if the manifest does not deploy
/// it: a vehicle may leave it out.
[[nodiscard]] std::unique_ptr<Statistics_skeleton> offer_statistics(Statistics_sources sources);

}  // namespace binding
