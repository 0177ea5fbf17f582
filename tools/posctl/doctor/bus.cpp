#include "tools/posctl/doctor/bus.h"

#include <sdbus-c++/sdbus-c++.h>

#include <future>
#include <memory>
#include <string>
#include <thread>

#include "platform/linux/stm/state_bus.h"

namespace posctl::doctor {

namespace {

bool name_is_owned(ara::stm::Bus bus) {
  const auto connection = bus == ara::stm::Bus::session ? sdbus::createSessionBusConnection()
                                                        : sdbus::createSystemBusConnection();
  const auto daemon =
      sdbus::createProxy(*connection, "org.freedesktop.DBus", "/org/freedesktop/DBus");
  bool owned = false;
  daemon->callMethod("NameHasOwner")
      .onInterface("org.freedesktop.DBus")
      .withArguments(ara::stm::bus_name())
      .storeResultsTo(owned);
  return owned;
}

}  // namespace

std::function<Bus_state()> ask_bus(Deadline deadline) {
  Bus_state state;
  std::optional<ara::stm::Bus> bus;
  try {
    bus = ara::stm::chosen_bus();
  } catch (const std::runtime_error& error) {
    state.error = error.what();
  }
  state.asked = bus != ara::stm::Bus::none;
  if (!bus || bus == ara::stm::Bus::none) return [state] { return state; };
  // A bus daemon that accepts and does not answer holds the library for 90 s: the thread then stays
  // behind until the process ends.
  auto answer = std::make_shared<std::promise<bool>>();
  auto future = std::make_shared<std::future<bool>>(answer->get_future());
  std::thread([answer, bus = *bus] {
    try {
      answer->set_value(name_is_owned(bus));
    } catch (...) {
      answer->set_exception(std::current_exception());
    }
  }).detach();
  return [state, future, deadline]() mutable {
    try {
      if (future->wait_until(deadline) == std::future_status::ready) {
        state.owned = future->get();
      } else {
        state.error = "the bus daemon accepts and does not answer";
      }
    } catch (const sdbus::Error& error) {
      state.error = error.getMessage();
    }
    return state;
  };
}

}  // namespace posctl::doctor
