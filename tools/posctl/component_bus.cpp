#include "tools/posctl/component_bus.h"

#include <sdbus-c++/sdbus-c++.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <exception>
#include <future>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "app/application_instance.h"
#include "platform/linux/stm/state_bus.h"
#include "tools/command.h"

namespace posctl {
namespace {

/// The errors of a bus without an application that answers.
constexpr std::array<std::string_view, 4> no_application{
    "org.freedesktop.DBus.Error.ServiceUnknown", "org.freedesktop.DBus.Error.NameHasNoOwner",
    "org.freedesktop.DBus.Error.NoReply", "org.freedesktop.DBus.Error.Timeout"};

/// The bus that the application chooses from the same environment.
std::unique_ptr<sdbus::IConnection> bus() {
  switch (ara::stm::chosen_bus()) {
    case ara::stm::Bus::session:
      return sdbus::createSessionBusConnection();
    case ara::stm::Bus::system:
      return sdbus::createSystemBusConnection();
    case ara::stm::Bus::none:
      break;
  }
  throw std::runtime_error("POS_STATE_BUS is \"none\": there is no bus to ask on");
}

std::unique_ptr<sdbus::IProxy> application_on(sdbus::IConnection& connection) {
  return sdbus::createProxy(connection, ara::stm::bus_name(),
                            ara::stm::object_path(application_instance));
}

std::uint32_t ask(const std::string& state, std::uint32_t sequence_number, Deadline deadline) {
  std::uint32_t result = 0;
  try {
    const auto connection = bus();
    const auto application = application_on(*connection);
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
        deadline - std::chrono::steady_clock::now());
    application->callMethod("RequestState")
        .onInterface(ara::stm::interface_name())
        .withTimeout(std::max(left, std::chrono::microseconds(1)))
        .withArguments(state, sequence_number)
        .storeResultsTo(result);
  } catch (const sdbus::Error& error) {
    const std::string text = "component state: " + error.getMessage();
    if (std::ranges::find(no_application, error.getName()) != no_application.end())
      throw tools::No_answer(text);
    throw std::runtime_error(text);
  }
  return result;
}

/// A bus daemon that accepts and does not answer holds the bus library for 90 s: a thread that uses
/// it stays behind until the process ends.
template <class Work>
void start_beside(Work work) {
  try {
    std::thread(std::move(work)).detach();
  } catch (const std::system_error& error) {
    throw std::system_error(error.code(), "cannot start a thread for the bus");
  }
}

}  // namespace

std::uint32_t request_component_state(const std::string& state,
                                      std::uint32_t sequence_number,
                                      Deadline deadline) {
  auto answer = std::make_shared<std::promise<std::uint32_t>>();
  auto future = answer->get_future();
  start_beside([answer, state, sequence_number, deadline] {
    try {
      answer->set_value(ask(state, sequence_number, deadline));
    } catch (...) {
      answer->set_exception(std::current_exception());
    }
  });
  if (future.wait_until(deadline) != std::future_status::ready) {
    throw tools::No_answer("component state: the bus gave no answer in time");
  }
  return future.get();
}

void follow_component_states(std::function<void(bool available, const std::string& text)> available,
                             std::function<void(const Component_confirmation&)> confirmed) {
  start_beside([available = std::move(available), confirmed = std::move(confirmed)] {
    try {
      const auto connection = bus();
      const auto application = application_on(*connection);
      application->uponSignal("StateConfirmed")
          .onInterface(ara::stm::interface_name())
          .call([&](std::uint32_t sequence_number, const std::string& state, std::uint32_t result) {
            confirmed({state, sequence_number, result});
          });
      application->finishRegistration();
      available(true, "");
      connection->enterEventLoop();
      available(false, "the bus has gone");
    } catch (const sdbus::Error& error) {
      available(false, error.getMessage());
    } catch (const std::exception& error) {
      available(false, error.what());
    }
  });
}

}  // namespace posctl
