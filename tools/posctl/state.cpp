#include <sdbus-c++/sdbus-c++.h>

#include <chrono>
#include <exception>
#include <future>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "app/application_instance.h"
#include "platform/linux/stm/state_bus.h"
#include "tools/command.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/connect.h"

namespace posctl {
namespace {

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

std::uint32_t ask(const State_options& options) {
  std::uint32_t result = 0;
  try {
    const auto connection = bus();
    const auto application = sdbus::createProxy(*connection, ara::stm::bus_name(),
                                                ara::stm::object_path(application_instance));
    application->callMethod("RequestState")
        .onInterface(ara::stm::interface_name())
        .withTimeout(std::chrono::microseconds(static_cast<std::int64_t>(options.timeout * 1e6)))
        .withArguments(options.state, options.sequence_number)
        .storeResultsTo(result);
  } catch (const sdbus::Error& error) {
    throw std::runtime_error("component state: " + error.getMessage());
  }
  return result;
}

/// Calls ask() on a thread of its own. A bus daemon that accepts and does not answer holds the bus
/// library for 90 s: the thread then stays behind until the process ends.
std::future<std::uint32_t> ask_beside(const State_options& options) {
  auto answer = std::make_shared<std::promise<std::uint32_t>>();
  auto future = answer->get_future();
  try {
    std::thread([answer, options] {
      try {
        answer->set_value(ask(options));
      } catch (...) {
        answer->set_exception(std::current_exception());
      }
    }).detach();
  } catch (const std::system_error& error) {
    throw std::system_error(error.code(), "cannot start a thread for the bus");
  }
  return future;
}

}  // namespace

int request_state(const State_options& options) {
  const auto deadline = deadline_in(options.timeout);
  auto answer = ask_beside(options);
  if (answer.wait_until(deadline) != std::future_status::ready) {
    throw tools::No_answer("component state: the bus gave no answer in time");
  }
  const std::uint32_t result = answer.get();
  tools::write_output(options.state + " confirmed with result " + std::to_string(result) + "\n");
  return result == 0 ? 0 : tools::exit_failed;
}

}  // namespace posctl
