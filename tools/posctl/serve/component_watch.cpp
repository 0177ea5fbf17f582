#include "tools/posctl/serve/component_watch.h"

#include <mutex>
#include <string>

#include "tools/posctl/component_bus.h"

namespace posctl::serve {

/// For the thread of the bus, which may outlive the watch.
struct Component_watch::Gate {
  std::mutex mutex;  ///< guards the member below
  Page_feed* feed = nullptr;

  void tell(const Json& json) {
    const std::lock_guard lock(mutex);
    if (feed == nullptr) return;
    feed->keep(Topic::component, json);
    feed->event(Topic::component, json);
  }
};

Component_watch::Component_watch(Page_feed& feed) : gate_(std::make_shared<Gate>()) {
  gate_->feed = &feed;
  follow_component_states(
      [gate = gate_](bool available, const std::string& text) {
        gate->tell({{"available", available}, {"text", text}});
      },
      [gate = gate_](const Component_confirmation& confirmation) {
        gate->tell({{"available", true},
                    {"text", ""},
                    {"state", confirmation.state},
                    {"sequenceNumber", confirmation.sequence_number},
                    {"result", confirmation.result}});
      });
}

Component_watch::~Component_watch() {
  const std::lock_guard lock(gate_->mutex);
  gate_->feed = nullptr;
}

}  // namespace posctl::serve
