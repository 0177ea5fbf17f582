#include "tools/nmea/Epoch_builder.h"

#include <algorithm>
#include <utility>

namespace nmea {
namespace {

/// Takes over what is still missing.
template <typename T>
void complete(std::optional<T>& target, const std::optional<T>& source) {
  if (!target) target = source;
}

}  // namespace

std::optional<Fix> Epoch_builder::add(const Sentence& sentence) {
  if (const auto* navigation = std::get_if<Navigation>(&sentence))
    return add_navigation(*navigation);
  if (!epoch_) epoch_.emplace();
  if (const auto* active = std::get_if<Active_satellites>(&sentence)) {
    add_active(*active);
  } else {
    add_view(std::get<Satellites_in_view>(sentence));
  }
  return std::nullopt;
}

std::optional<Fix> Epoch_builder::add_navigation(const Navigation& sentence) {
  const auto index = static_cast<std::size_t>(sentence.type);
  std::optional<Fix> ended;
  if (epoch_) {
    const bool other_time = sentence.time_of_day && epoch_->time_of_day &&
                            *sentence.time_of_day != *epoch_->time_of_day;
    const auto& same_type = epoch_->navigation[index];
    const bool told_without_time = same_type && sentence.type != Navigation_type::vtg &&
                                   same_type->time_of_day != sentence.time_of_day;
    const bool again_without_time =
        same_type && sentence.type != Navigation_type::vtg && !sentence.time_of_day;
    if (other_time || told_without_time || again_without_time) ended = finish();
  }
  if (!epoch_) epoch_.emplace();
  complete(epoch_->time_of_day, sentence.time_of_day);

  auto& place = epoch_->navigation[index];
  if (place) ++counters_.duplicates;
  if (!place || (sentence.talker == Talker::combined && place->talker != Talker::combined)) {
    place = sentence;
  }
  return ended;
}

void Epoch_builder::add_active(const Active_satellites& sentence) {
  epoch_->used_told = true;
  for (std::size_t index = 0; index < sentence.used_count; ++index) {
    const auto& used = sentence.used[index];
    if (epoch_->used.size() < max_used &&
        std::find(epoch_->used.begin(), epoch_->used.end(), used) == epoch_->used.end()) {
      epoch_->used.push_back(used);
    }
  }
  // A receiver of several systems sends one sentence for each; the solution is as good as the best
  // says.
  if (sentence.dimension && (!epoch_->dimension || *epoch_->dimension < *sentence.dimension)) {
    epoch_->dimension = sentence.dimension;
  }
  complete(epoch_->pdop, sentence.pdop);
  complete(epoch_->hdop, sentence.hdop);
  complete(epoch_->vdop, sentence.vdop);
}

void Epoch_builder::add_view(const Satellites_in_view& sentence) {
  const bool same_group = pending_.next != 0 && pending_.total == sentence.total &&
                          pending_.view.talker == sentence.talker &&
                          pending_.view.signal == sentence.signal &&
                          sentence.number >= pending_.next;
  if (!same_group || sentence.number != pending_.next) {
    // One count for each group that has a gap, wherever the gap is.
    if (pending_.next != 0 && !pending_.broken) ++counters_.incomplete_groups;
    const bool counted = same_group;
    pending_ = {.view = {.talker = sentence.talker,
                         .signal = sentence.signal,
                         .in_view = sentence.in_view,
                         .satellites = {}},
                .total = sentence.total,
                .next = sentence.number,
                .broken = sentence.number != 1};
    if (pending_.broken && !counted) ++counters_.incomplete_groups;
  }
  pending_.view.satellites.insert(
      pending_.view.satellites.end(), sentence.satellites.begin(),
      sentence.satellites.begin() + static_cast<std::ptrdiff_t>(sentence.satellite_count));
  if (pending_.next++ < pending_.total) return;

  pending_.next = 0;
  if (pending_.broken) return;
  auto& views = epoch_->views;
  const auto same = std::find_if(views.begin(), views.end(), [&](const detail::View& view) {
    return view.talker == pending_.view.talker && view.signal == pending_.view.signal;
  });
  if (same != views.end()) {
    *same = std::move(pending_.view);
  } else if (views.size() < max_views) {
    views.push_back(std::move(pending_.view));
  }
}

void Epoch_builder::merge_satellites(const detail::Epoch& epoch, Fix& fix) {
  if (epoch.used_told) {
    const auto listed = static_cast<unsigned>(epoch.used.size());
    fix.satellites_in_use = std::max(fix.satellites_in_use.value_or(0), listed);
  }
  if (epoch.views.empty()) return;

  // Each system says how many it sees, once for each of its signals.
  std::array<unsigned, talker_count> in_view{};
  auto& satellites = fix.satellites.emplace();
  for (const auto& view : epoch.views) {
    auto& of_talker = in_view.at(static_cast<std::size_t>(view.talker));
    of_talker = std::max(of_talker, view.in_view);
    for (const auto& satellite : view.satellites) {
      const auto known =
          std::find_if(satellites.begin(), satellites.end(), [&](const Satellite& other) {
            return other.system == satellite.system && other.id == satellite.id;
          });
      if (known == satellites.end()) {
        satellites.push_back(satellite);
        continue;
      }
      complete(known->elevation, satellite.elevation);
      complete(known->azimuth, satellite.azimuth);
      if (known->signal < satellite.signal) known->signal = satellite.signal;
    }
  }
  unsigned total = 0;
  for (const unsigned count : in_view)
    total += count;
  fix.satellites_in_view = total;

  unsigned tracked = 0;
  for (auto& satellite : satellites) {
    satellite.in_use =
        std::find(epoch.used.begin(), epoch.used.end(),
                  Active_satellites::Used{satellite.system, satellite.id}) != epoch.used.end();
    if (satellite.signal.value_or(0) > 0) ++tracked;
  }
  fix.satellites_tracked = tracked;
}

void Epoch_builder::resolve_date(Fix& fix) {
  using namespace std::chrono;
  if (!fix.time_of_day) return;
  if (!fix.utc && last_utc_) {
    // Without a date of its own: the day that brings it closest to the last one.
    const auto day = floor<days>(*last_utc_);
    const Utc_time same_day = Utc_time(day) + *fix.time_of_day;
    fix.utc = same_day;
    if (same_day + hours(12) < *last_utc_) fix.utc = same_day + days(1);
    if (same_day > *last_utc_ + hours(12)) fix.utc = same_day - days(1);
  }
  if (fix.utc) last_utc_ = fix.utc;
}

std::optional<Fix> Epoch_builder::finish() {
  if (!epoch_) return std::nullopt;
  const detail::Epoch epoch = std::move(*epoch_);
  epoch_.reset();

  Fix fix;
  fix.time_of_day = epoch.time_of_day;
  fix.pdop = epoch.pdop;
  fix.vdop = epoch.vdop;
  fix.dimension = epoch.dimension;
  std::optional<bool> valid;
  std::optional<std::chrono::year_month_day> date;
  for (const auto& navigation : epoch.navigation) {
    if (!navigation) continue;
    complete(date, navigation->date);
    if (navigation->valid) valid = valid.value_or(false) || *navigation->valid;
    complete(fix.position, navigation->position);
    complete(fix.altitude_msl, navigation->altitude_msl);
    complete(fix.geoid_separation, navigation->geoid_separation);
    complete(fix.speed, navigation->speed);
    complete(fix.course, navigation->course);
    complete(fix.hdop, navigation->hdop);
    if (navigation->quality && fix.quality.value_or(Fix_quality::none) == Fix_quality::none) {
      fix.quality = navigation->quality;
    }
    if (navigation->satellites_in_use) {
      fix.satellites_in_use =
          std::max(fix.satellites_in_use.value_or(0), *navigation->satellites_in_use);
    }
  }
  complete(fix.hdop, epoch.hdop);
  // RMC's status is the receiver's own verdict; a GGA beside it may speak for one system only.
  const auto& recommended = epoch.navigation[static_cast<std::size_t>(Navigation_type::rmc)];
  fix.valid = recommended && recommended->valid ? *recommended->valid : valid.value_or(false);

  if (date && fix.time_of_day) fix.utc = Utc_time(std::chrono::sys_days(*date)) + *fix.time_of_day;
  resolve_date(fix);
  merge_satellites(epoch, fix);
  return fix;
}

}  // namespace nmea
