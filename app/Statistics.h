/// The service by which an integrator looks into the running process: interface, skeleton, proxy,
/// and its records. Not a part of the vehicle's functions.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ara/core/future.h"
#include "binding/codec.h"
#include "mw/com/cpp_binding/proxy.h"
#include "mw/com/cpp_binding/skeleton.h"
#include "mw/com/process_usage.h"

namespace mw::com::runtime {

/// One counter of the communication runtime, with its value since the start.
struct Counter {
  std::string name;
  std::uint64_t value = 0;
};

struct Statistics {
  static constexpr std::string_view name = "mw::com::runtime::Statistics";
  static constexpr cpp_binding::Version version{1, 0};
  static constexpr cpp_binding::Method<std::vector<Counter>()> Counters{"Counters"};
  static constexpr cpp_binding::Method<Process_usage()> Process{"Process"};
  static constexpr auto elements = std::tuple{Counters, Process};
};

namespace proxy {
class StatisticsProxy : public cpp_binding::proxy::Proxy_impl<Statistics> {
 public:
  explicit StatisticsProxy(const Handle_type& handle) : Proxy_impl{handle} {}

  cpp_binding::proxy::Method<std::vector<Counter>()> Counters{connection(),
                                                              Statistics::Counters.name};
  cpp_binding::proxy::Method<Process_usage()> Process{connection(), Statistics::Process.name};
};
}  // namespace proxy

namespace skeleton {
class StatisticsSkeleton : public cpp_binding::skeleton::Skeleton_impl<Statistics> {
 public:
  /// An implementation's destructor must begin with disconnect(), so that no call reaches it any
  /// more.
  explicit StatisticsSkeleton(const ara::core::InstanceSpecifier& specifier)
      : Skeleton_impl{specifier} {
    cpp_binding::skeleton::provide(provision(), Statistics::Counters,
                                   [this] { return Counters(); });
    cpp_binding::skeleton::provide(provision(), Statistics::Process, [this] { return Process(); });
  }
  virtual ~StatisticsSkeleton() { disconnect(); }

  virtual ara::core::Future<std::vector<Counter>> Counters() = 0;
  virtual ara::core::Future<Process_usage> Process() = 0;
};
}  // namespace skeleton

}  // namespace mw::com::runtime

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
