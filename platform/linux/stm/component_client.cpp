#include "ara/stm/component_client.h"

#include <sdbus-c++/sdbus-c++.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <future>
#include <list>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "ara/log/logger.h"
#include "platform/linux/core/all_signals_blocked.h"
#include "platform/linux/stm/state_bus.h"

namespace ara::stm {
namespace {

constexpr std::size_t max_pending = 32;
constexpr std::size_t max_state_name = 128;

/// Time for the last answers to leave. Then the process no longer waits for a daemon that does not
/// answer: it leaves the bus thread behind, which ends by itself.
constexpr std::chrono::milliseconds farewell{250};

constexpr const char* invalid_args = "org.freedesktop.DBus.Error.InvalidArgs";
constexpr const char* limits_exceeded = "org.freedesktop.DBus.Error.LimitsExceeded";
constexpr const char* failed = "org.freedesktop.DBus.Error.Failed";

void warn_not_on_bus(const char* reason) {
  log::LogWarn() << "Component state: not on the bus, state management cannot reach this component:"
                 << reason;
}

class Without_bus final : public ComponentClient {
 public:
  void confirm(std::uint32_t /*sequence_number*/,
               const std::string& /*newState*/,
               std::uint32_t /*result*/) override {}
};

/// The component's object on the bus. One thread connects to the bus and serves it, another thread
/// calls the handler. Two threads, because the bus library holds its own lock while it delivers a
/// call: a handler that waited there for a confirming thread would wait for ever. A request stays
/// in `pending_` from its arrival until its confirmation by any thread. A component may discard a
/// request (because a later one has overtaken it) and never confirm it. Such a request is answered
/// with an error as soon as another request needs its number or place.
///
/// The bus thread shares the ownership, because the bus library waits up to 90 s for a daemon that
/// does not answer, and cannot be interrupted.
class Bus_object {
 public:
  Bus_object(std::string path, StateChangeHandler handler)
      : path_(std::move(path)), handler_(std::move(handler)) {}
  ~Bus_object() = default;
  Bus_object(const Bus_object&) = delete;
  Bus_object& operator=(const Bus_object&) = delete;

  /// The bus thread: returns after leave(), or if there is no bus. All objects of the bus library
  /// are made and destroyed here.
  void serve(Bus bus) {
    try {
      const auto connection = bus == Bus::session ? sdbus::createSessionBusConnection()
                                                  : sdbus::createSystemBusConnection();
      const auto object = sdbus::createObject(*connection, path_);
      register_on(*object);
      if (!start_handler_thread()) return;
      connection->requestName(bus_name());
      if (!publish(connection.get(), object.get())) return;
      try {
        connection->enterEventLoop();
      } catch (const std::exception& error) {
        warn_once(error.what());
      }
      wait_for_leave();
      for (auto& pending : std::exchange(pending_, {}))
        refuse(pending.reply, failed, "the component ended without a decision");
    } catch (const std::exception& error) {
      if (!is_leaving()) warn_not_on_bus(error.what());
    }
  }

  /// Returns after a handler call under way; no further call follows.
  void stop() {
    std::thread handler_thread;
    {
      const std::lock_guard lock(mutex_);
      stopping_ = true;
      handler_thread = std::move(handler_thread_);
    }
    changed_.notify_all();
    if (handler_thread.joinable()) handler_thread.join();
  }

  /// Makes serve() return. Call it after stop(), when no thread confirms any longer.
  void leave() {
    const std::lock_guard lock(mutex_);
    leaving_ = true;
    changed_.notify_all();
    try {
      if (connection_ != nullptr) connection_->leaveEventLoop();
    } catch (const std::exception& error) {
      warn_once(error.what());
    }
  }

  void confirm(std::uint32_t sequence_number, const std::string& newState, std::uint32_t result) {
    try {
      std::list<Pending> confirmed;
      sdbus::IObject* object = nullptr;
      {
        const std::lock_guard lock(mutex_);
        object = object_;
        confirmed = take([sequence_number](const Pending& pending) {
          return pending.sequence_number == sequence_number;
        });
      }
      if (!confirmed.empty()) confirmed.front().reply.returnResults(result);
      if (object == nullptr) return;
      object->emitSignal("StateConfirmed")
          .onInterface(interface_)
          .withArguments(sequence_number, newState, result);
    } catch (const std::exception& error) {
      warn_once(error.what());
    }
  }

 private:
  using Reply = sdbus::Result<std::uint32_t>;
  struct Pending {
    std::uint64_t arrival;
    std::uint32_t sequence_number;
    Reply reply;
    bool handled = false;  ///< the handler has returned
  };
  struct Call {
    std::uint64_t arrival;
    std::string state;
    std::uint32_t sequence_number;
  };

  void register_on(sdbus::IObject& object) {
    object.registerMethod("RequestState")
        .onInterface(interface_)
        .withInputParamNames("state", "sequenceNumber")
        .withOutputParamNames("result")
        .implementedAs(
            [this](Reply&& reply, const std::string& state, const std::uint32_t& sequence_number) {
              request(std::move(reply), state, sequence_number);
            });
    object.registerSignal("StateConfirmed")
        .onInterface(interface_)
        .withParameters<std::uint32_t, std::string, std::uint32_t>("sequenceNumber", "state",
                                                                   "result");
    object.finishRegistration();
  }

  /// Call it before the first request can arrive. Returns false if stop() was already called.
  bool start_handler_thread() {
    const std::lock_guard lock(mutex_);
    if (stopping_) return false;
    handler_thread_ = std::thread([this] { call_handler(); });
    return true;
  }

  /// Confirmations find the bus from now on. Returns false if leave() was already called.
  bool publish(sdbus::IConnection* connection, sdbus::IObject* object) {
    const std::lock_guard lock(mutex_);
    if (leaving_) return false;
    connection_ = connection;
    object_ = object;
    return true;
  }

  bool is_leaving() {
    const std::lock_guard lock(mutex_);
    return leaving_;
  }

  void wait_for_leave() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return leaving_; });
    connection_ = nullptr;
    object_ = nullptr;
  }

  void refuse(Reply& reply, const char* error, const std::string& reason) {
    try {
      reply.returnError(sdbus::Error(error, reason));
    } catch (const std::exception& exception) {
      warn_once(exception.what());
    }
  }

  void request(Reply&& reply, const std::string& state, std::uint32_t sequence_number) {
    if (state.empty() || state.size() > max_state_name) {
      refuse(reply, invalid_args, "expected a state name of 1 to 128 bytes");
    } else if (sequence_number == 0) {
      refuse(reply, invalid_args,
             "sequence number 0 marks the component's own changes, expected 1 or more");
    } else if (!enqueue(reply, state, sequence_number)) {
      refuse(reply, limits_exceeded, "too many requests are waiting for their confirmation");
    }
  }

  bool enqueue(Reply& reply, const std::string& state, std::uint32_t sequence_number) {
    std::list<Pending> oldest;
    {
      const std::lock_guard lock(mutex_);
      if (stopping_) return false;
      if (pending_.size() >= max_pending) {
        // The other requests wait for the handler or are being handled: a decision will follow.
        oldest = take([](const Pending& pending) { return pending.handled; });
        if (oldest.empty()) return false;
      }
      pending_.push_back(Pending{++arrivals_, sequence_number, std::move(reply)});
      calls_.push_back(Call{arrivals_, state, sequence_number});
    }
    changed_.notify_all();
    refuse_overtaken(std::move(oldest));
    return true;
  }

  /// Call it without mutex_: sending a reply and ending one take the bus library's lock, which is
  /// held around request().
  void refuse_overtaken(std::list<Pending> requests) {
    for (auto& request : requests)
      refuse(request.reply, failed, "later requests came before its decision");
  }

  void call_handler() {
    std::unique_lock lock(mutex_);
    for (;;) {
      changed_.wait(lock, [this] { return stopping_ || !calls_.empty(); });
      if (stopping_) return;
      const Call call = std::move(calls_.front());
      calls_.pop_front();
      // From now on a confirmation of this number is the new request's.
      auto overtaken = take([&call](const Pending& pending) {
        return pending.handled && pending.sequence_number == call.sequence_number;
      });
      lock.unlock();
      refuse_overtaken(std::move(overtaken));
      handler_(call.state, call.sequence_number);
      lock.lock();
      for (auto& pending : pending_)
        if (pending.arrival == call.arrival) pending.handled = true;
    }
  }

  /// The oldest request that fulfils the condition, or none. Call it under mutex_.
  template <class Condition>
  std::list<Pending> take(Condition condition) {
    std::list<Pending> taken;
    const auto found = std::find_if(pending_.begin(), pending_.end(), condition);
    if (found != pending_.end()) taken.splice(taken.end(), pending_, found);
    return taken;
  }

  void warn_once(const char* reason) {
    if (warned_.exchange(true)) return;
    log::LogWarn() << "Component state: the bus is gone, state management cannot reach this "
                      "component any more:"
                   << reason;
  }

  const std::string path_;
  const std::string interface_ = interface_name();
  const StateChangeHandler handler_;
  std::atomic<bool> warned_ = false;
  std::mutex mutex_;  ///< guards the members below
  std::condition_variable changed_;
  /// Empty before the bus thread destroys the connection, which its replies use.
  std::list<Pending> pending_;
  std::deque<Call> calls_;  ///< for the handler; never more than in pending_
  std::uint64_t arrivals_ = 0;
  bool stopping_ = false;
  bool leaving_ = false;
  std::thread handler_thread_;
  // Owned by the bus thread, which destroys them after leave(); callable from any thread. Null
  // while the component is not on the bus.
  sdbus::IConnection* connection_ = nullptr;
  sdbus::IObject* object_ = nullptr;
};

/// A client whose bus object lives on a thread of its own, beside the application's start.
class On_bus final : public ComponentClient {
 public:
  On_bus(Bus bus, const core::InstanceSpecifier& instance, StateChangeHandler handler)
      : object_(
            std::make_shared<Bus_object>(object_path(instance.ToString()), std::move(handler))) {
    std::packaged_task<void()> serve([object = object_, bus] { object->serve(bus); });
    served_ = serve.get_future();
    const core::All_signals_blocked blocked;
    thread_ = std::thread(std::move(serve));
  }

  ~On_bus() override {
    object_->stop();
    object_->leave();
    if (served_.wait_for(farewell) == std::future_status::ready) {
      thread_.join();
    } else {
      thread_.detach();
    }
  }

  void confirm(std::uint32_t sequence_number,
               const std::string& newState,
               std::uint32_t result) override {
    object_->confirm(sequence_number, newState, result);
  }

 private:
  const std::shared_ptr<Bus_object> object_;
  std::future<void> served_;  ///< ready when the thread is about to end
  std::thread thread_;
};

}  // namespace

std::unique_ptr<ComponentClient> createComponentClient(const core::InstanceSpecifier& instance,
                                                       StateChangeHandler handler) {
  if (!handler)
    throw std::invalid_argument("component client \"" + instance.ToString() +
                                "\": the handler is empty");
  try {
    if (const Bus bus = chosen_bus(); bus != Bus::none)
      return std::make_unique<On_bus>(bus, instance, std::move(handler));
  } catch (const std::exception& error) {
    warn_not_on_bus(error.what());
  }
  return std::make_unique<Without_bus>();
}

}  // namespace ara::stm
