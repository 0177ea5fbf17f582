#include "app/StatisticsSkelImpl.h"

#include <stdexcept>
#include <string>
#include <utility>

using mw::com::runtime::Counter;
using mw::com::runtime::Process_usage;

namespace {

template <class Value>
ara::core::Future<Value> ready(Value value) {
  ara::core::Promise<Value> promise;
  promise.set_value(std::move(value));
  return promise.get_future();
}

}  // namespace

StatisticsSkelImpl::StatisticsSkelImpl()
    : StatisticsSkeleton(ara::core::InstanceSpecifier("Statistics_ProvidedSomeipServiceInstance")) {
}

ara::core::Future<std::vector<Counter>> StatisticsSkelImpl::Counters() {
  std::vector<Counter> counters;
  for (const auto& [name, value] : tq::com::Runtime::instance().counters()) {
    counters.push_back({.name = std::string(name), .value = value});
  }
  return ready(std::move(counters));
}

ara::core::Future<Process_usage> StatisticsSkelImpl::Process() {
  return ready(mw::com::runtime::process_usage());
}

std::unique_ptr<StatisticsSkelImpl> offerStatistics() {
  try {
    auto statistics = std::make_unique<StatisticsSkelImpl>();
    statistics->OfferService();
    return statistics;
  } catch (const std::runtime_error&) {
    // The binding's trace record tells; nothing in the vehicle depends on this service.
    return nullptr;
  }
}
