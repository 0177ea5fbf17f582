#include "binding/statistics.h"

#include <stdexcept>
#include <utility>

namespace binding {
namespace {

template <class Value>
ara::core::Future<Value> ready(Value value) {
  ara::core::Promise<Value> promise;
  promise.set_value(std::move(value));
  return promise.get_future();
}

}  // namespace

Statistics_skeleton::Statistics_skeleton()
    : Skeleton_impl{ara::core::InstanceSpecifier("Statistics_ProvidedSomeipServiceInstance")} {
  using mw::com::cpp_binding::skeleton::provide;
  provide(core(), Statistics::Counters, [this] { return Counters(); });
  provide(core(), Statistics::Process, [this] { return Process(); });
}

ara::core::Future<Statistics::Counters_result> Statistics_skeleton::Counters() {
  return ready(mw::com::runtime::counters());
}

ara::core::Future<Statistics::Process_result> Statistics_skeleton::Process() {
  return ready(mw::com::runtime::process_usage());
}

std::unique_ptr<Statistics_skeleton> offer_statistics() {
  try {
    auto statistics = std::make_unique<Statistics_skeleton>();
    statistics->OfferService();
    return statistics;
  } catch (const std::runtime_error&) {
    // The binding's trace record reports the failure; no function of the vehicle depends on this
    // service.
    return nullptr;
  }
}

}  // namespace binding
