#include "tools/nmea/epoch_builder.h"

#include <algorithm>
#include <type_traits>
#include <utility>

#include "tools/nmea/merging.h"

namespace nmea {

bool detail::Epoch::speaks_of_validity() const {
  return std::any_of(navigation.begin(), navigation.end(),
                     [](const auto& told) { return told && told->sentence.valid; });
}

unsigned detail::Epoch::types() const {
  unsigned result = 0;
  for (std::size_t index = 0; index < navigation.size(); ++index)
    if (navigation.at(index)) result |= 1U << index;
  return result;
}

std::optional<Fix> Epoch_builder::add(const Sentence& sentence) {
  if (is_overshadowed(sentence)) {
    ++counters_.duplicates;
    ++counters_.of(sentence.type).ignored;
    return std::nullopt;
  }
  if (const auto* navigation = std::get_if<Navigation>(&sentence.content)) {
    return add_navigation(*navigation, sentence.talker);
  }
  std::visit(
      [&](const auto& content) {
        using Type = std::decay_t<decltype(content)>;
        if constexpr (std::is_same_v<Type, Clock>) {
          add_clock(content);
        } else if constexpr (std::is_same_v<Type, Accuracy>) {
          add_accuracy(content, sentence.type);
        } else if constexpr (std::is_same_v<Type, Attitude>) {
          add_attitude(content);
        } else if constexpr (std::is_same_v<Type, Active_satellites>) {
          add_active(content);
        } else if constexpr (std::is_same_v<Type, Satellites_in_view>) {
          add_view(content, sentence.talker);
        } else if constexpr (std::is_same_v<Type, Text>) {
          antenna_ = content.antenna;
        }
      },
      sentence.content);
  return std::nullopt;
}

bool Epoch_builder::is_overshadowed(const Sentence& sentence) {
  const auto* navigation = std::get_if<Navigation>(&sentence.content);
  if (sentence.talker != Talker::integrated) {
    if (navigation != nullptr && navigation->valid == true) passed_on_ = 0;
    return false;
  }
  if (std::holds_alternative<Attitude>(sentence.content) || passed_on_ == receiver_gone) {
    return false;
  }
  if (navigation != nullptr) ++passed_on_;
  return true;
}

bool Epoch_builder::begins_instant(const Navigation& sentence, Talker talker) const {
  if (!epoch_) return true;
  if (sentence.time_of_day && epoch_->time_of_day &&
      *sentence.time_of_day != *epoch_->time_of_day) {
    return true;
  }
  const auto& same_type = epoch_->navigation.at(static_cast<std::size_t>(sentence.type));
  if (!same_type) return false;
  // The same again behind a pause is a new round of a receiver whose clock does not run.
  if (epoch_->returned && same_type->talker == talker &&
      (!sentence.time_of_day || sentence.valid != true)) {
    return true;
  }
  return sentence.type != Navigation_type::vtg &&
         (!sentence.time_of_day || same_type->sentence.time_of_day != sentence.time_of_day);
}

std::optional<Fix> Epoch_builder::add_navigation(const Navigation& sentence, Talker talker) {
  std::optional<Fix> ended;
  if (begins_instant(sentence, talker)) {
    ended = end_instant();
    epoch_.emplace();
    epoch_->sky = std::exchange(next_sky_, {});
  }
  detail::complete(epoch_->time_of_day, sentence.time_of_day);

  auto& place = epoch_->navigation.at(static_cast<std::size_t>(sentence.type));
  if (place) {
    ++counters_.duplicates;
    ++counters_.of(static_cast<Sentence_type>(sentence.type)).ignored;
  }
  if (!place || (talker == Talker::combined && place->talker != Talker::combined)) {
    place = {sentence, talker};
  }
  return ended;
}

void Epoch_builder::add_clock(const Clock& sentence) {
  if (sentence.time_of_day && sentence.date) {
    last_utc_ = Utc_time(std::chrono::sys_days(*sentence.date)) + *sentence.time_of_day;
    clock_ = sentence;
  }
}

void Epoch_builder::add_accuracy(const Accuracy& sentence, Sentence_type type) {
  auto& accuracies = type == Sentence_type::gst ? accuracies_ : expected_accuracies_;
  accuracies[0] = std::exchange(accuracies[1], sentence);
}

void Epoch_builder::add_attitude(const Attitude& sentence) {
  const auto renew = [](std::optional<double>& target, const std::optional<double>& source) {
    if (source) target = source;
  };
  renew(attitude_.heading, sentence.heading);
  renew(attitude_.heading_accuracy, sentence.heading_accuracy);
  renew(attitude_.pitch, sentence.pitch);
  renew(attitude_.roll, sentence.roll);
}

/// Satellites behind a pause complete an instant that has none of their kind yet. If it has, the
/// next instant begins with them.
detail::Sky& Epoch_builder::sky_for(bool kind_returned) {
  if (!epoch_ || kind_returned) return next_sky_;
  if (epoch_->returned) epoch_->grown = true;
  return epoch_->sky;
}

void Epoch_builder::add_active(const Active_satellites& sentence) {
  auto& sky = sky_for(epoch_ && epoch_->used_returned);
  sky.used_reported = true;
  for (std::size_t index = 0; index < sentence.used_count; ++index) {
    const auto& used = sentence.used.at(index);
    if (sky.used.size() < max_used &&
        std::find(sky.used.begin(), sky.used.end(), used) == sky.used.end()) {
      sky.used.push_back(used);
    }
  }
  // A receiver of several systems sends one sentence for each; the solution is as good as the best
  // says.
  if (sentence.dimension && (!sky.dimension || *sky.dimension < *sentence.dimension)) {
    sky.dimension = sentence.dimension;
  }
  detail::complete(sky.pdop, sentence.pdop);
  detail::complete(sky.hdop, sentence.hdop);
  detail::complete(sky.vdop, sentence.vdop);
}

void Epoch_builder::add_view(const Satellites_in_view& sentence, Talker talker) {
  const bool same_group = pending_.next != 0 && pending_.total == sentence.total &&
                          pending_.view.talker == talker && sentence.number >= pending_.next;
  if (!same_group || sentence.number != pending_.next) {
    // One count for each group that has a gap, wherever the gap is.
    if (pending_.next != 0 && !pending_.broken) ++counters_.incomplete_groups;
    const bool counted = same_group;
    pending_ = {.view = {.talker = talker,
                         .signal = sentence.signal,
                         .in_view = sentence.in_view,
                         .satellites = {}},
                .total = sentence.total,
                .next = sentence.number,
                .broken = sentence.number != 1};
    if (pending_.broken && !counted) ++counters_.incomplete_groups;
  }
  if (sentence.signal != pending_.view.signal) pending_.view.several_signals = true;
  pending_.view.satellites.insert(
      pending_.view.satellites.end(), sentence.satellites.begin(),
      sentence.satellites.begin() + static_cast<std::ptrdiff_t>(sentence.satellite_count));
  if (pending_.next++ < pending_.total) return;

  pending_.next = 0;
  if (pending_.broken) return;
  auto& views = sky_for(epoch_ && epoch_->views_returned).views;
  const auto same = std::find_if(views.begin(), views.end(), [&](const detail::View& view) {
    return view.talker == pending_.view.talker && view.signal == pending_.view.signal;
  });
  if (same != views.end()) {
    *same = std::move(pending_.view);
  } else if (views.size() < max_views) {
    views.push_back(std::move(pending_.view));
  }
}

std::optional<Fix> Epoch_builder::pause(Silence silence) {
  if (!epoch_) return std::nullopt;
  if (epoch_->returned) {
    if (!std::exchange(epoch_->grown, false)) return std::nullopt;
    auto fix = make_fix();
    fix.supplement = true;
    return fix;
  }
  if (!epoch_->speaks_of_validity()) {
    return silence == Silence::lasting ? end_instant() : std::nullopt;
  }
  if (silence == Silence::brief && (usual_types_ & ~epoch_->types()) != 0) return std::nullopt;
  auto fix = make_fix();
  epoch_->returned = true;
  epoch_->used_returned = epoch_->sky.used_reported;
  epoch_->views_returned = !epoch_->sky.views.empty();
  return fix;
}

std::optional<Fix> Epoch_builder::end_instant() {
  if (!epoch_) return std::nullopt;
  std::optional<Fix> result;
  if (!epoch_->speaks_of_validity()) {
    next_sky_ = std::move(epoch_->sky);
  } else {
    usual_types_ = epoch_->types();
    if (!epoch_->returned || epoch_->grown) result = make_fix();
    if (result) result->supplement = epoch_->returned;
  }
  epoch_.reset();
  return result;
}

std::optional<Fix> Epoch_builder::finish() {
  return end_instant();
}

void Epoch_builder::count_contradiction(Sentence_type type) {
  ++counters_.contradictions;
  ++counters_.of(type).ignored;
}

/// Looks for contradictions between sentences of different kinds.
void Epoch_builder::judge(const std::optional<std::chrono::year_month_day>& date, const Fix& fix) {
  if (date && clock_ && clock_->time_of_day == fix.time_of_day && clock_->date != date) {
    count_contradiction(Sentence_type::zda);
  }
  clock_.reset();
  if (fix.valid && epoch_->sky.dimension == Fix_dimension::none) {
    count_contradiction(Sentence_type::gsa);
    auto& sky = epoch_->sky;
    sky.dimension = std::nullopt;
    sky.pdop = sky.hdop = sky.vdop = std::nullopt;
    sky.used.clear();
    sky.used_reported = false;
  }
}

Fix Epoch_builder::make_fix() {
  Fix fix;
  fix.time_of_day = epoch_->time_of_day;
  std::optional<bool> valid;
  std::optional<std::chrono::year_month_day> date;
  if (!epoch_->returned) {
    detail::judge(epoch_->navigation);
    for (const auto& told : epoch_->navigation) {
      if (told && !told->believed) {
        count_contradiction(static_cast<Sentence_type>(told->sentence.type));
      }
    }
  }
  for (const auto& told : epoch_->navigation) {
    if (!told || !told->believed) continue;
    const Navigation& navigation = told->sentence;
    if (navigation.valid) valid = valid.value_or(false) || *navigation.valid;
    detail::complete(date, navigation.date);
    detail::take(navigation, fix);
  }
  // RMC's status is the receiver's own verdict; a GGA beside it may speak for one system only.
  const auto& recommended = epoch_->navigation[static_cast<std::size_t>(Navigation_type::rmc)];
  fix.valid = recommended && recommended->believed && recommended->sentence.valid
                  ? *recommended->sentence.valid
                  : valid.value_or(false);
  if (!fix.position) fix.valid = false;
  if (!epoch_->returned) judge(date, fix);

  resolve_date(fix, date);
  take_supplements(fix);
  detail::take(epoch_->sky, fix);
  return fix;
}

void Epoch_builder::take_supplements(Fix& fix) {
  fix.antenna = antenna_;
  for (const auto* accuracies : {&expected_accuracies_, &accuracies_}) {
    for (const auto& accuracy : *accuracies) {
      if (!accuracy || !accuracy->time_of_day || accuracy->time_of_day != fix.time_of_day) continue;
      if (accuracy->horizontal) fix.accuracy_horizontal = accuracy->horizontal;
      if (accuracy->vertical) fix.accuracy_vertical = accuracy->vertical;
    }
  }
  if (epoch_->returned) return;  // a supplement has no position: the next one takes the attitude
  fix.heading = attitude_.heading;
  fix.heading_accuracy = attitude_.heading_accuracy;
  fix.pitch = attitude_.pitch;
  fix.roll = attitude_.roll;
  attitude_ = {};
}

void Epoch_builder::resolve_date(Fix& fix, std::optional<std::chrono::year_month_day> date) {
  using namespace std::chrono;
  if (!fix.time_of_day) return;
  if (date) {
    fix.utc = Utc_time(sys_days(*date)) + *fix.time_of_day;
  } else if (last_utc_) {
    // Without a date of its own: the day that brings it closest to the last one.
    const auto day = floor<days>(*last_utc_);
    const Utc_time same_day = Utc_time(day) + *fix.time_of_day;
    fix.utc = same_day;
    if (same_day + hours(12) < *last_utc_) fix.utc = same_day + days(1);
    if (same_day > *last_utc_ + hours(12)) fix.utc = same_day - days(1);
  }
  if (fix.utc) last_utc_ = fix.utc;
}

}  // namespace nmea
