#include "clients/TimemasterClientImpl.h"

#include "clients/subscribe.h"

namespace TimemasterClient {

TimemasterClientImpl::TimemasterClientImpl()
    : logger_{ara::log::CreateLogger("TMCL", "TimemasterClientImpl class own context")},
      client_{logger_} {}

void TimemasterClientImpl::init() {
  logger_.LogInfo() << "enter TimemasterClientImpl::init()";
  client_.init([this](auto& proxy) { set_up(proxy); });
}

void TimemasterClientImpl::set_up(lumo::services::time::proxy::TimeProxy& proxy) {
  clients::subscribe(proxy.times, [this](const auto& records) {
    times_faults_.look(records);
    if (!on_times_) return;
    for (const auto& record : records)
      on_times_(record);
  });
  // This client requests the field as part of the service; nothing here uses the display format.
  clients::subscribe(proxy.timeSettings, [](const auto&) {});
}

}  // namespace TimemasterClient
