#include "platform/someip/discovery/discovery_outbox.h"

#include <algorithm>
#include <utility>

namespace someip {

void Discovery_outbox::add(const Destination& to,
                           std::vector<Entry> entries,
                           std::vector<Option> options,
                           Time due) {
  const auto [known, added] = parcel_of_.emplace(to, parcels_.size());
  if (added) parcels_.push_back({to, {}, {}, due});
  Parcel& parcel = parcels_[known->second];
  parcel.due = std::min(parcel.due, due);
  const Entry& first = entries.front();
  if (first.type == Entry_type::offer_service &&
      !parcel.offers.insert({{first.service, first.instance, first.major_version}, first.ttl})
           .second) {
    return;
  }
  parcel.items.push_back({std::move(entries), std::move(options)});
}

bool Discovery_outbox::holds_offer(const Destination& to,
                                   const Instance_key& key,
                                   std::uint32_t ttl) const {
  const auto known = parcel_of_.find(to);
  return known != parcel_of_.end() && parcels_[known->second].offers.contains({key, ttl});
}

void Discovery_outbox::flush(Time now) {
  parcel_of_.clear();
  for (Parcel& parcel : std::exchange(parcels_, {})) {
    if (parcel.due <= now) {
      send(parcel, now);
    } else {
      parcel_of_.emplace(parcel.to, parcels_.size());
      parcels_.push_back(std::move(parcel));
    }
  }
}

void Discovery_outbox::flush_all(Time now) {
  for (const Parcel& parcel : parcels_)
    send(parcel, now);
  drop_all();
}

void Discovery_outbox::drop_all() {
  parcels_.clear();
  parcel_of_.clear();
}

Time Discovery_outbox::next_deadline() const {
  Time next = Time::max();
  for (const Parcel& parcel : parcels_)
    next = std::min(next, parcel.due);
  return next;
}

void Discovery_outbox::send(const Parcel& parcel, Time now) {
  Discovery_writer writer;
  for (const Item& item : parcel.items) {
    if (writer.add_all(item.entries, item.options)) continue;
    send(std::exchange(writer, Discovery_writer{}), parcel.to, now);
    static_cast<void>(writer.add_all(item.entries, item.options));
  }
  send(writer, parcel.to, now);
}

void Discovery_outbox::send(const Discovery_writer& writer, const Destination& to, Time now) {
  Session_counter& counter = to ? peers_.towards(*to, now) : peers_.towards_group();
  const std::uint16_t session = counter.next();
  send_(writer.message(session, counter.reboot_flag()), to);
}

}  // namespace someip
