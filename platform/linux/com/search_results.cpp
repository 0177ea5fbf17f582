#include "platform/linux/com/search_results.h"

#include <utility>

#include "platform/linux/com/remote_instance.h"

namespace tq::com {

Search_results::Search_results(const someip::Service_deployment& service,
                               Find_handler handler,
                               someip::Workers& workers)
    : service_(service), handler_(std::move(handler)), workers_(workers) {}

Search_results::~Search_results() {
  // As with a Notification_queue: if it has not run by now, the workers have stopped without it.
  close();
  if (!strand_.running_in_this_thread()) strand_.run();
}

void Search_results::found(const std::vector<std::uint16_t>& instances) {
  if (!latest_.put(instances)) return;
  if (strand_.enqueue([this] { deliver(); })) {
    workers_.post([self = shared_from_this()] { self->strand_.run(); });
  }
}

void Search_results::deliver() {
  const std::vector<std::uint16_t> instances = latest_.take();
  std::vector<Found_instance> result;
  result.reserve(instances.size());
  for (const std::uint16_t instance : instances) {
    result.push_back(
        {service_.name, instance, std::make_shared<const Remote_instance>(service_, instance)});
  }
  handler_(result);
}

}  // namespace tq::com
