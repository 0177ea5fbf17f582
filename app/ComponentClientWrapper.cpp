#include "app/ComponentClientWrapper.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "app/application_instance.h"

namespace {

constexpr const char* prepare_shutdown = "kPrepSD";
constexpr const char* on_state = "kOn";

constexpr std::uint32_t accepted = 0;
constexpr std::uint32_t refused = 1;

}  // namespace

ComponentClientWrapper::ComponentClientWrapper(Persistency* persistency, Prepare_callback prepare)
    : logger_(ara::log::CreateLogger("CCSW", "ComponentClietWrapper class own context")),
      persistency_(persistency),
      prepare_callback_(std::move(prepare)) {
  // The first request may arrive before the client is set; it waits for the lock.
  const std::lock_guard lock(mutex_);
  client_ =
      ara::stm::createComponentClient(ara::core::InstanceSpecifier(application_instance),
                                      [this](const std::string& newState, std::uint32_t seqNum) {
                                        componentStateChangeRequest(newState, seqNum);
                                      });
}

ComponentClientWrapper::~ComponentClientWrapper() {
  wait_for_preparation();
  std::unique_ptr<ara::stm::ComponentClient> client;
  {
    const std::lock_guard lock(mutex_);
    client = std::move(client_);
  }
  client.reset();          // waits for a request under way, which needs the lock
  wait_for_preparation();  // started by such a request
  persistency_->setCallback({});
}

void ComponentClientWrapper::componentStateChangeRequest(const std::string& newState,
                                                         std::uint32_t seqNum) {
  logger_.LogInfo() << "componentStateChangeRequest newState = " << newState
                    << " seqNum = " << seqNum;
  const std::lock_guard lock(mutex_);
  if (newState != prepare_shutdown) {
    if (newState == on_state && state_ == State::on) {
      confirm(seqNum, newState, accepted);
      return;
    }
    switch_on(seqNum, newState);
    return;
  }
  switch (state_) {
    case State::on:
      if (prepare_callback_ && is_owner_ready()) {
        finish_preparation(seqNum);
      } else {
        start_preparation(seqNum);
      }
      break;
    case State::transition_pending:
      confirm(seqNum, newState, refused);
      break;
    case State::prepared_for_shutdown:
      confirm(seqNum, newState, accepted);
      break;
  }
}

void ComponentClientWrapper::switch_on(std::uint32_t seqNum, const std::string& newState) {
  if (state_ == State::transition_pending) persistency_->setCallback({});
  persistency_->setStoringAllowed(true);
  state_ = State::on;
  wake_preparation();
  confirm(seqNum, newState, accepted);
}

void ComponentClientWrapper::finish_preparation(std::uint32_t seqNum) {
  persistency_->setStoringAllowed(false);
  state_ = State::prepared_for_shutdown;
  confirm(seqNum, prepare_shutdown, accepted);
}

void ComponentClientWrapper::start_preparation(std::uint32_t seqNum) {
  persistency_->setCallback([this] { wake_preparation(); });
  state_ = State::transition_pending;
  prepared_seq_num_ = seqNum;
  deadline_ = Clock::now() + wait_limit;
  seen_wakes_ = wakes();
  if (preparing_) return;
  try {
    preparation_ = std::async(std::launch::async, &ComponentClientWrapper::prepare, this);
    preparing_ = true;
  } catch (const std::exception& error) {
    // No thread is available: the next request tries again.
    logger_.LogError() << "Error in the preparation for shutdown:" << error.what();
    persistency_->setCallback({});
    state_ = State::on;
    confirm(seqNum, prepare_shutdown, refused);
  }
}

void ComponentClientWrapper::prepare() {
  std::unique_lock lock(mutex_);
  while (state_ == State::transition_pending) {
    const auto deadline = deadline_;
    const auto seen = seen_wakes_;
    lock.unlock();
    const auto wakes = wait_for_wake(seen, std::min(deadline, Clock::now() + ask_period));
    lock.lock();
    if (state_ != State::transition_pending || deadline_ != deadline) continue;  // a newer request
    seen_wakes_ = wakes;
    const bool ready = prepare_callback_ ? is_owner_ready() : wakes != seen;
    if (ready || Clock::now() >= deadline) finish_preparation(prepared_seq_num_);
  }
  preparing_ = false;
}

bool ComponentClientWrapper::is_owner_ready() {
  std::string failure;
  try {
    return prepare_callback_();
  } catch (const std::exception& error) {
    failure = error.what();
  } catch (...) {
    failure = "unknown exception";
  }
  logger_.LogError() << "Error in the preparation for shutdown:" << failure;
  return false;
}

std::uint64_t ComponentClientWrapper::wakes() {
  const std::lock_guard lock(wake_mutex_);
  return wakes_;
}

std::uint64_t ComponentClientWrapper::wait_for_wake(std::uint64_t seen, Clock::time_point time) {
  std::unique_lock lock(wake_mutex_);
  wake_.wait_until(lock, time, [&] { return wakes_ != seen; });
  return wakes_;
}

void ComponentClientWrapper::wake_preparation() {
  {
    const std::lock_guard lock(wake_mutex_);
    ++wakes_;
  }
  wake_.notify_one();
}

void ComponentClientWrapper::wait_for_preparation() {
  std::future<void> preparation;
  {
    const std::lock_guard lock(mutex_);
    preparation = std::move(preparation_);
  }
  if (preparation.valid()) preparation.wait();
}

void ComponentClientWrapper::confirm(std::uint32_t seqNum,
                                     const std::string& newState,
                                     std::uint32_t result) {
  if (client_) client_->confirm(seqNum, newState, result);
}
