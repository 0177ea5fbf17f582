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

Statistics_skeleton::Statistics_skeleton(const Position_ages& ages,
                                         const mw::com::runtime::Clock_watch& clock)
    : Skeleton_impl{ara::core::InstanceSpecifier("Statistics_ProvidedSomeipServiceInstance")},
      ages_{ages},
      clock_{clock} {
  using mw::com::cpp_binding::skeleton::provide;
  provide(core(), Statistics::Counters, [this] { return Counters(); });
  provide(core(), Statistics::Process, [this] { return Process(); });
  provide(core(), Statistics::Ages, [this] { return Ages(); });
  provide(core(), Statistics::Stamps, [this] { return Stamps(); });
  provide(core(), Statistics::Clock, [this] { return Clock(); });
  provide(core(), Statistics::Peers, [this] { return Peers(); });
}

ara::core::Future<Statistics::Counters_result> Statistics_skeleton::Counters() {
  return ready(mw::com::runtime::counters());
}

ara::core::Future<Statistics::Process_result> Statistics_skeleton::Process() {
  return ready(mw::com::runtime::process_usage());
}

ara::core::Future<Statistics::Ages_result> Statistics_skeleton::Ages() {
  return ready(ages_.ages());
}

ara::core::Future<Statistics::Stamps_result> Statistics_skeleton::Stamps() {
  return ready(ages_.stamps());
}

ara::core::Future<Statistics::Clock_result> Statistics_skeleton::Clock() {
  return ready(clock_.state());
}

ara::core::Future<Statistics::Peers_result> Statistics_skeleton::Peers() {
  return ready(mw::com::runtime::peers());
}

std::unique_ptr<Statistics_skeleton> offer_statistics(const Position_ages& ages,
                                                      const mw::com::runtime::Clock_watch& clock) {
  try {
    auto statistics = std::make_unique<Statistics_skeleton>(ages, clock);
    statistics->OfferService();
    return statistics;
  } catch (const std::runtime_error&) {
    // The binding's trace record reports the failure; no function of the vehicle depends on this
    // service.
    return nullptr;
  }
}

}  // namespace binding
