#include "ara/stm/component_client.h"

#include <pthread.h>
#include <sdbus-c++/sdbus-c++.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <deque>
#include <exception>
#include <list>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>

#include "ara/log/logger.h"
#include "platform/linux/stm/state_bus.h"

namespace ara::stm {
namespace {

constexpr std::size_t kMaxPending = 32;
constexpr std::size_t kMaxStateName = 128;

constexpr const char* kInvalidArgs = "org.freedesktop.DBus.Error.InvalidArgs";
constexpr const char* kLimitsExceeded = "org.freedesktop.DBus.Error.LimitsExceeded";
constexpr const char* kFailed = "org.freedesktop.DBus.Error.Failed";

class WithoutBus final : public ComponentClient {
 public:
  void confirm(std::uint32_t /*sequenceNumber*/,
               const std::string& /*newState*/,
               std::uint32_t /*result*/) override {}
};

/// The object on the bus. One thread serves the bus, another one calls the handler: the bus library
/// holds its own lock while it delivers a call, so a handler that waits there for a thread that is
/// just confirming would wait for ever. A request stays in `pending_` from its arrival until its
/// confirmation, whichever thread brings that. A component may drop a request (a later one has
/// overtaken it) and never confirm it; it is answered with an error as soon as it is in the way.
class OnBus final : public ComponentClient {
 public:
  OnBus(Bus bus, const core::InstanceSpecifier& instance, StateChangeHandler handler)
      : handler_(std::move(handler)),
        connection_(bus == Bus::kSession ? sdbus::createSessionBusConnection()
                                         : sdbus::createSystemBusConnection()),
        object_(sdbus::createObject(*connection_, ObjectPath(instance.ToString()))) {
    object_->registerMethod("RequestState")
        .onInterface(kInterface)
        .withInputParamNames("state", "sequenceNumber")
        .withOutputParamNames("result")
        .implementedAs(
            [this](Reply&& reply, const std::string& state, const std::uint32_t& sequence_number) {
              Request(std::move(reply), state, sequence_number);
            });
    object_->registerSignal("StateConfirmed")
        .onInterface(kInterface)
        .withParameters<std::uint32_t, std::string, std::uint32_t>("sequenceNumber", "state",
                                                                   "result");
    object_->finishRegistration();
    connection_->requestName(kBusName);

    // No signal is ever handled on a thread of the platform.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    handler_thread_ = std::thread([this] { CallHandler(); });
    bus_thread_ = std::thread([this] { Serve(); });
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }

  ~OnBus() override {
    {
      const std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    arrived_.notify_one();
    handler_thread_.join();
    try {
      connection_->leaveEventLoop();
    } catch (const std::exception& error) {
      WarnOnce(error.what());
    }
    bus_thread_.join();
    for (auto& pending : pending_)
      Refuse(pending.reply, kFailed, "the component ended without a decision");
  }

  void confirm(std::uint32_t sequenceNumber,
               const std::string& newState,
               std::uint32_t result) override {
    try {
      std::list<Pending> confirmed;
      {
        const std::lock_guard lock(mutex_);
        confirmed = Take([sequenceNumber](const Pending& pending) {
          return pending.sequence_number == sequenceNumber;
        });
      }
      if (!confirmed.empty()) confirmed.front().reply.returnResults(result);
      object_->emitSignal("StateConfirmed")
          .onInterface(kInterface)
          .withArguments(sequenceNumber, newState, result);
    } catch (const std::exception& error) {
      WarnOnce(error.what());
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

  void Serve() {
    try {
      connection_->enterEventLoop();
    } catch (const std::exception& error) {
      WarnOnce(error.what());
    }
  }

  void Refuse(Reply& reply, const char* error, const std::string& reason) {
    try {
      reply.returnError(sdbus::Error(error, reason));
    } catch (const std::exception& exception) {
      WarnOnce(exception.what());
    }
  }

  void Request(Reply&& reply, const std::string& state, std::uint32_t sequence_number) {
    if (state.empty() || state.size() > kMaxStateName) {
      Refuse(reply, kInvalidArgs, "expected a state name of 1 to 128 bytes");
    } else if (sequence_number == 0) {
      Refuse(reply, kInvalidArgs,
             "sequence number 0 marks the component's own changes, expected 1 or more");
    } else if (!Enqueue(reply, state, sequence_number)) {
      Refuse(reply, kLimitsExceeded, "too many requests are waiting for their confirmation");
    }
  }

  bool Enqueue(Reply& reply, const std::string& state, std::uint32_t sequence_number) {
    std::list<Pending> oldest;
    {
      const std::lock_guard lock(mutex_);
      if (stopping_) return false;
      if (pending_.size() >= kMaxPending) {
        // Those that the handler has not had yet, or has now, are on their way to a decision.
        oldest = Take([](const Pending& pending) { return pending.handled; });
        if (oldest.empty()) return false;
      }
      pending_.push_back(Pending{++arrivals_, sequence_number, std::move(reply)});
      calls_.push_back(Call{arrivals_, state, sequence_number});
    }
    arrived_.notify_one();
    RefuseOvertaken(std::move(oldest));
    return true;
  }

  /// Not under mutex_: to send a reply, and to end one, takes the bus library's lock, which is
  /// held around Request().
  void RefuseOvertaken(std::list<Pending> requests) {
    for (auto& request : requests)
      Refuse(request.reply, kFailed, "later requests came before its decision");
  }

  void CallHandler() {
    std::unique_lock lock(mutex_);
    for (;;) {
      arrived_.wait(lock, [this] { return stopping_ || !calls_.empty(); });
      if (stopping_) return;
      const Call call = std::move(calls_.front());
      calls_.pop_front();
      // From now on a confirmation of this number is the new request's.
      auto overtaken = Take([&call](const Pending& pending) {
        return pending.handled && pending.sequence_number == call.sequence_number;
      });
      lock.unlock();
      RefuseOvertaken(std::move(overtaken));
      handler_(call.state, call.sequence_number);
      lock.lock();
      for (auto& pending : pending_)
        if (pending.arrival == call.arrival) pending.handled = true;
    }
  }

  /// The oldest request that fulfils the condition, or none. Under mutex_.
  template <class Condition>
  std::list<Pending> Take(Condition condition) {
    std::list<Pending> taken;
    const auto found = std::find_if(pending_.begin(), pending_.end(), condition);
    if (found != pending_.end()) taken.splice(taken.end(), pending_, found);
    return taken;
  }

  void WarnOnce(const char* reason) {
    if (warned_.exchange(true)) return;
    log::LogWarn() << "Component state: the bus is gone, state management cannot reach this "
                      "component any more:"
                   << reason;
  }

  const StateChangeHandler handler_;
  std::atomic<bool> warned_ = false;
  std::unique_ptr<sdbus::IConnection> connection_;  ///< callable from any thread
  std::mutex mutex_;                                ///< guards the members up to stopping_
  std::condition_variable arrived_;
  std::list<Pending> pending_;  ///< destroyed before the connection that its replies use
  std::deque<Call> calls_;      ///< for the handler; at most as many as pending_
  std::uint64_t arrivals_ = 0;
  bool stopping_ = false;
  std::unique_ptr<sdbus::IObject> object_;  ///< callable from any thread
  std::thread handler_thread_;
  std::thread bus_thread_;
};

}  // namespace

std::unique_ptr<ComponentClient> createComponentClient(const core::InstanceSpecifier& instance,
                                                       StateChangeHandler handler) {
  if (!handler)
    throw std::invalid_argument("component client \"" + instance.ToString() +
                                "\": the handler is empty");
  try {
    if (const Bus bus = ChosenBus(); bus != Bus::kNone)
      return std::make_unique<OnBus>(bus, instance, std::move(handler));
  } catch (const std::exception& error) {
    log::LogWarn()
        << "Component state: not on the bus, state management cannot reach this component:"
        << error.what();
  }
  return std::make_unique<WithoutBus>();
}

}  // namespace ara::stm
