#include "tools/gnss-gateway/fault_plan.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace gateway {

void Fault_plan::add(const Fault_request& request, Fault_time now) {
  const std::lock_guard lock(mutex_);
  if (faults_.size() == max_faults) {
    throw std::invalid_argument("there are " + std::to_string(max_faults) + " faults already");
  }
  const auto start = now + request.start;
  const bool endless = request.duration == Fault_time::max();
  faults_.push_back({.state = {.text = request.text,
                               .in_force = false,
                               .start = start,
                               .end = endless ? Fault_time::max() : start + request.duration},
                     .kind = request.kind,
                     .value = request.value,
                     .fault = nullptr});
}

std::size_t Fault_plan::clear(std::string_view fault, Fault_time now) {
  const std::lock_guard lock(mutex_);
  std::size_t cleared = 0;
  for (auto& planned : faults_) {
    if (!fault.empty() && planned.kind->name != fault && planned.state.text != fault) continue;
    planned.state.end = std::min(planned.state.end, now);
    ++cleared;
  }
  return cleared;
}

std::vector<Fault_plan::State> Fault_plan::list() const {
  const std::lock_guard lock(mutex_);
  std::vector<State> states;
  for (const auto& planned : faults_)
    states.push_back(planned.state);
  return states;
}

void Fault_plan::feed(std::size_t place, Fault_time now, Message message) {
  while (place < faults_.size() && !faults_[place].fault)
    ++place;
  if (place == faults_.size()) {
    due_.push_back(std::move(message));
  } else {
    faults_[place].fault->pass(now, std::move(message), behind(place, now));
  }
}

Fault::Sink Fault_plan::behind(std::size_t place, Fault_time now) {
  return [this, place, now](Message message) { feed(place + 1, now, std::move(message)); };
}

void Fault_plan::pass(Fault_time now, Message message) {
  const std::lock_guard lock(mutex_);
  feed(0, now, std::move(message));
}

void Fault_plan::replace_by_beginning(Fault_time now) {
  for (std::size_t place = 0; place < faults_.size(); ++place) {
    const auto& beginning = faults_[place];
    if (!beginning.begins(now)) continue;
    for (std::size_t other = 0; other < faults_.size(); ++other) {
      auto& old = faults_[other];
      const bool was_first = old.fault || (other < place && old.begins(now));
      if (was_first && old.kind == beginning.kind && old.value.choice == beginning.value.choice) {
        old.state.end = now;
      }
    }
  }
}

Fault_plan::Progress Fault_plan::advance(Fault_time now) {
  const std::lock_guard lock(mutex_);
  Progress progress;
  replace_by_beginning(now);
  for (auto& planned : faults_) {
    if (!planned.begins(now)) continue;
    // The start is the present: a late call must not make up for the time before.
    planned.state.start = now;
    planned.state.in_force = true;
    planned.fault = planned.kind->make(planned.value, now);
    progress.begun.push_back(planned.state);
  }
  for (std::size_t place = 0; place < faults_.size(); ++place) {
    auto& [state, kind, value, fault] = faults_[place];
    if (!fault) continue;
    const bool ends = state.end <= now;
    fault->release(ends ? Fault_time::max() : now, behind(place, now));
    if (ends) {
      progress.ended.push_back(state);
      fault.reset();
    }
  }
  std::erase_if(faults_, [now](const auto& planned) { return planned.state.end <= now; });
  progress.due = std::exchange(due_, {});
  return progress;
}

Fault_time Fault_plan::next_due() const {
  const std::lock_guard lock(mutex_);
  if (!due_.empty()) return Fault_time{};
  auto next = Fault_time::max();
  for (const auto& [state, kind, value, fault] : faults_) {
    next = std::min({next, state.end, fault ? fault->next_release() : state.start});
  }
  return next;
}

bool Fault_plan::holds_messages() const {
  const std::lock_guard lock(mutex_);
  return !due_.empty() || std::ranges::any_of(faults_, [](const auto& planned) {
    return planned.fault && planned.fault->next_release() != Fault_time::max();
  });
}

Service_fault Fault_plan::service() const {
  const std::lock_guard lock(mutex_);
  Service_fault all;
  for (const auto& planned : faults_) {
    if (!planned.fault) continue;
    const auto one = planned.fault->service();
    all.off = all.off || one.off;
    if (one.second_north_m) all.second_north_m = one.second_north_m;
  }
  return all;
}

}  // namespace gateway
