/// The service that lets an integrator look into the running process: its records, interface,
/// skeleton and proxy. It is not a function of the vehicle.
#pragma once

#include <memory>
#include <vector>

#include "ara/core/future.h"
#include "binding/codec.h"
#include "mw/com/cpp_binding/proxy.h"
#include "mw/com/cpp_binding/skeleton.h"
#include "mw/com/statistics.h"

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

namespace binding {

struct Statistics {
  using Counters_result = std::vector<mw::com::runtime::Counter>;
  using Process_result = mw::com::runtime::Process_usage;

  static constexpr std::string_view name = "mw::com::runtime::Statistics";
  static constexpr mw::com::cpp_binding::Version version{1, 0};
  static constexpr mw::com::cpp_binding::Method<Counters_result()> Counters{"Counters"};
  static constexpr mw::com::cpp_binding::Method<Process_result()> Process{"Process"};
  static constexpr auto elements = std::tuple{Counters, Process};
};

class Statistics_proxy : public mw::com::cpp_binding::proxy::Proxy_impl<Statistics> {
 public:
  explicit Statistics_proxy(const Handle_type& handle) : Proxy_impl{handle} {}

  mw::com::cpp_binding::proxy::Element<Statistics::Counters> Counters{core()};
  mw::com::cpp_binding::proxy::Element<Statistics::Process> Process{core()};
};

/// Answers with the counters and usage of this process.
class Statistics_skeleton : public mw::com::cpp_binding::skeleton::Skeleton_impl<Statistics> {
 public:
  /// The instance "Statistics_ProvidedSomeipServiceInstance". Throws std::runtime_error if the
  /// manifest does not have it.
  Statistics_skeleton();
  ~Statistics_skeleton() { disconnect(); }

  [[nodiscard]] ara::core::Future<Statistics::Counters_result> Counters();
  [[nodiscard]] ara::core::Future<Statistics::Process_result> Process();
};

/// Offers the service until the result is destroyed. Returns null if the manifest does not deploy
/// it: a vehicle may leave it out.
[[nodiscard]] std::unique_ptr<Statistics_skeleton> offer_statistics();

}  // namespace binding
