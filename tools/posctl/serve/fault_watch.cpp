#include "tools/posctl/serve/fault_watch.h"

#include <algorithm>
#include <cstddef>
#include <exception>
#include <utility>

#include "tools/posctl/fault_orders.h"

namespace posctl::serve {
namespace {

constexpr std::chrono::milliseconds period{500};
// A peer decides how much it tells.
constexpr std::size_t most_faults = 256;
constexpr std::size_t most_kinds = 64;
constexpr std::size_t most_choices = 64;
constexpr std::size_t most_characters = 256;

void cut(std::string& text) {
  if (text.size() > most_characters) text.resize(most_characters);
}

template <class Value>
void cut(std::vector<Value>& values, std::size_t most) {
  if (values.size() > most) values.resize(most);
}

std::vector<gateway::Known_fault> bounded(std::vector<gateway::Known_fault> kinds) {
  cut(kinds, most_kinds);
  for (auto& kind : kinds) {
    cut(kind.choices, most_choices);
    for (auto* text : {&kind.name, &kind.meaning, &kind.unit, &kind.usual})
      cut(*text);
    std::ranges::for_each(kind.choices, [](std::string& choice) { cut(choice); });
  }
  return kinds;
}

std::vector<gateway::Planned_fault> bounded(std::vector<gateway::Planned_fault> faults) {
  cut(faults, most_faults);
  for (auto& fault : faults)
    cut(fault.fault);
  return faults;
}

}  // namespace

Fault_watch::Fault_watch(Page_feed& feed, std::string absence)
    : feed_(feed), absence_(std::move(absence)), period_(period) {
  lose(service_.absence(absence_));
}

void Fault_watch::look(std::chrono::steady_clock::time_point now) {
  if (service_.update()) begin();
  if (service_.proxy() == nullptr) return;
  try {
    take_answers();
    if (!period_.is_due(now)) return;
    if (!kinds_ && !kinds_answer_) kinds_answer_ = service_.proxy()->Kinds();
    if (!faults_answer_) faults_answer_ = service_.proxy()->Faults();
  } catch (const std::exception& error) {
    begin();
    lose("the gateway does not answer: " + std::string(error.what()));
  }
}

void Fault_watch::begin() {
  kinds_.reset();
  kinds_answer_.reset();
  faults_answer_.reset();
  if (service_.proxy() == nullptr) lose(absence_);
}

void Fault_watch::lose(const std::string& reason) {
  Json json = json_of({}, {});
  json["present"] = false;
  json["text"] = reason;
  feed_.state(Topic::source_faults, json);
}

void Fault_watch::take_answers() {
  const auto taken = [](auto& answer) {
    auto ready = std::move(*answer);
    answer.reset();
    return bounded(ready.get());
  };
  if (kinds_answer_ && kinds_answer_->is_ready()) {
    kinds_ = taken(kinds_answer_);
    reported_kinds_ = false;
  }
  if (kinds_ && faults_answer_ && faults_answer_->is_ready()) tell(taken(faults_answer_));
}

void Fault_watch::tell(const std::vector<gateway::Planned_fault>& faults) {
  Json whole = json_of(faults, *kinds_);
  whole["present"] = true;
  whole["text"] = "";
  if (!std::exchange(reported_kinds_, true)) {
    feed_.state(Topic::source_faults, whole);
    return;
  }
  Json news = whole;
  news.erase("kinds");
  feed_.state(Topic::source_faults, news, &whole);
}

}  // namespace posctl::serve
