#include <algorithm>
#include <cstdio>
#include <string>

#include "mw/com/statistics.h"
#include "platform/someip/base/hexadecimal.h"
#include "tools/command.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/statistics_page.h"
#include "tools/posctl/verdict.h"

namespace posctl {
namespace {

using binding::Statistics;
using binding::Statistics_proxy;
using mw::com::runtime::Consumed_event_group;
using mw::com::runtime::Consumed_service;
using mw::com::runtime::never;
using mw::com::runtime::Offered_instance;
using mw::com::runtime::Peers;
using mw::com::runtime::Subscriber;
using someip::hexadecimal;

template <class One, class Other>
bool same_instance(const One& one, const Other& other) {
  return one.serviceId == other.serviceId && one.instance == other.instance;
}

/// Ids as the manifest writes them, null for what has not come or does not end.
template <class Record>
Json row_of(const Record& record) {
  Json json = to_json(record);
  for (const auto* id : {"serviceId", "instance", "eventGroup"}) {
    if (json.contains(id)) json[id] = hexadecimal(json[id].template get<std::uint16_t>());
  }
  for (auto& value : json) {
    if (value == never) value = nullptr;
  }
  return json;
}

}  // namespace

Json json_of(const Peers& peers) {
  Json json{{"schema", 1}, {"offered", Json::array()}, {"consumed", Json::array()}};
  for (const Offered_instance& instance : peers.offered) {
    Json row = row_of(instance);
    Json& subscribers = row["subscribers"] = Json::array();
    for (const Subscriber& one : peers.subscribers) {
      if (same_instance(one, instance)) subscribers.push_back(row_of(one));
    }
    json["offered"].push_back(std::move(row));
  }
  // Clients may ask for what is not offered.
  Json& others = json["otherSubscribers"] = Json::array();
  for (const Subscriber& one : peers.subscribers) {
    const auto offered = [&](const Offered_instance& instance) {
      return same_instance(one, instance);
    };
    if (std::ranges::none_of(peers.offered, offered)) others.push_back(row_of(one));
  }
  for (const Consumed_service& service : peers.services) {
    Json row = row_of(service);
    Json& groups = row["eventGroups"] = Json::array();
    for (const Consumed_event_group& one : peers.eventGroups) {
      if (same_instance(one, service)) groups.push_back(row_of(one));
    }
    json["consumed"].push_back(std::move(row));
  }
  return json;
}

namespace {

std::string clock_time_of(const Json& ago_ms) {
  return clock_time(ago_ms.get<double>() / 1000);
}

std::string seconds(const Json& ms) {
  if (ms.is_null()) return "endless";
  char text[32];
  std::snprintf(text, sizeof text, "%.1f s", ms.get<double>() / 1000);
  return text;
}

std::string text(const Json& row, const char* member) {
  return row[member].get<std::string>();
}

/// "127.0.0.30 udp 40000 tcp 40001".
std::string endpoint_of(const Json& row) {
  std::string endpoint = text(row, "address");
  if (row["udpPort"] != 0) endpoint += " udp " + row["udpPort"].dump();
  if (row["tcpPort"] != 0) endpoint += " tcp " + row["tcpPort"].dump();
  return endpoint;
}

std::string subscriber_line(const Json& row) {
  const bool subscribed = row["subscribed"].get<bool>();
  std::string line = "group " + text(row, "eventGroup") + "  " + endpoint_of(row);
  line += (subscribed ? "  since " : "  REFUSED since ") + clock_time_of(row["sinceMs"]);
  if (subscribed) {
    line += ", time to live left " + seconds(row["ttlLeftMs"]) + ", sent " + row["sent"].dump();
  }
  if (row["refused"] != 0) line += ", refused " + row["refused"].dump();
  const std::string cause = text(row, "cause");
  return cause.empty() ? line : line + ": " + cause;
}

std::string group_line(const Json& row) {
  std::string line = "group " + text(row, "eventGroup");
  if (row["subscribed"].get<bool>()) line += "  subscribed since " + clock_time_of(row["sinceMs"]);
  if (!row["lastNotificationMs"].is_null()) {
    line += "  last notification " + seconds(row["lastNotificationMs"]) + " ago";
  }
  const std::string cause = text(row, "cause");
  return cause.empty() ? line : line + "  " + cause;
}

std::string title_of(const Json& row) {
  return text(row, "service") + " " + text(row, "serviceId") + " instance " +
         text(row, "instance") + " version " + row["majorVersion"].dump();
}

void print_offered(Page& page, const Json& json) {
  std::size_t unused = 0;
  for (const auto& instance : json["offered"]) {
    if (instance["subscribers"].empty()) {
      ++unused;
      continue;
    }
    page.section("Offers " + title_of(instance) + " at " + endpoint_of(instance));
    for (const auto& row : instance["subscribers"])
      page.line(subscriber_line(row));
  }
  if (!json["otherSubscribers"].empty())
    page.section("Refused subscriptions to what is not offered");
  for (const auto& row : json["otherSubscribers"])
    page.line("service " + text(row, "serviceId") + " instance " + text(row, "instance") + "  " +
              subscriber_line(row));
  page.section("Offers " + std::to_string(unused) + " instances without a subscriber");
}

void print_consumed(Page& page, const Json& json) {
  for (const auto& service : json["consumed"]) {
    page.section("Uses " + title_of(service));
    const std::string cause = text(service, "cause");
    if (service["found"].get<bool>()) {
      page.line("found at " + endpoint_of(service) + " since " + clock_time_of(service["sinceMs"]) +
                ", time to live left " + seconds(service["ttlLeftMs"]));
      if (!cause.empty()) page.line(cause);
    } else {
      page.line("NOT FOUND since " + clock_time_of(service["sinceMs"]) + ": " + cause);
    }
    for (const auto& row : service["eventGroups"])
      page.line(group_line(row));
  }
}

}  // namespace

int peers(const Look_options& options) {
  const Json json = on_the_way(options.way, [&] {
    const auto deadline = deadline_in(options.timeout);
    const auto service = connect<Statistics_proxy>(Statistics::name, deadline);
    return json_of(result_of(service->Peers(), Statistics::Peers.name, deadline));
  });
  if (options.json) {
    tools::write_output(json.dump() + "\n");
    return 0;
  }
  Page page;
  print_consumed(page, json);
  print_offered(page, json);
  tools::write_output(page.take());
  return 0;
}

}  // namespace posctl
