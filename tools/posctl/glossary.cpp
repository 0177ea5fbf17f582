#include "tools/posctl/glossary.h"

#include <algorithm>
#include <array>

#include "binding/statistics.h"
#include "diagnosisService/data_identifiers.h"
#include "diagnosisService/monitor_table.h"
#include "platform/someip/base/counters.h"
#include "platform/someip/base/hexadecimal.h"
#include "posService/positioning_records.h"
#include "tools/posctl/setting_table.h"
#include "tools/posctl/verdict.h"

namespace posctl {
namespace {

using binding::name_of;
using lumo::services::diag::Data_bus_fault;
using lumo::services::diag::Status;

struct Entry {
  std::string_view name;
  std::string_view meaning;
};

constexpr std::array counters{
    Entry{"datagramsReceived", "UDP datagrams that arrived, service discovery included"},
    Entry{"datagramsSent", "UDP datagrams that left, service discovery included"},
    Entry{"discoveryReceived", "messages of service discovery that arrived"},
    Entry{"discoverySent", "messages of service discovery that left"},
    Entry{"notificationsReceived", "notifications that arrived for a handler"},
    Entry{"notificationsLate",
          "notifications that reached their handler more than 100 ms after "
          "this machine had received them"},
    Entry{"notificationsDisplaced",
          "notifications that a newer one displaced while their handler "
          "was slow"},
    Entry{"notificationsSent", "notifications that left, one for each subscriber"},
    Entry{"requestsReceived", "method calls that arrived"},
    Entry{"requestsSent", "method calls that left"},
    Entry{"responsesReceived", "answers to method calls that arrived"},
    Entry{"responsesSent", "answers to method calls that left"},
    Entry{"segmentsReceived", "parts of long messages that arrived over UDP"},
    Entry{"segmentsSent", "parts of long messages that left over UDP"},
    Entry{"tcpAccepted", "TCP connections that peers opened"},
    Entry{"tcpConnected", "TCP connections that this process opened"},
    Entry{"tcpLost", "TCP connections that ended"},
    Entry{"tcpResynchronised",
          "times that a damaged TCP stream was taken up again at the next "
          "magic cookie"},
    Entry{"localAccepted", "connections of posctl through the Unix socket"},
    Entry{"peerRestarts", "restarts of peers, by their session and reboot flag"},
    Entry{"offersExpired", "offers of others whose time to live ended"},
    Entry{"subscriptionsExpired", "subscriptions of others whose time to live ended"},
    Entry{"subscriptionsClosed", "subscribers removed because their port was closed"},
    Entry{"linksLost", "times that the network link went down"},
    Entry{"subscriptionsAccepted", "subscriptions of others that were accepted"},
    Entry{"subscriptionsRefused",
          "subscriptions of others that were refused; posctl peers says "
          "why"},
    Entry{"callsTimedOut", "method calls of this process without an answer in time"},
    Entry{"droppedMalformed", "messages dropped because their bytes make no message"},
    Entry{"droppedDiscoveryMalformed", "messages of service discovery dropped for the same reason"},
    Entry{"droppedSegments", "parts of long messages that fit no message"},
    Entry{"droppedUnknownService", "messages for a service that is not offered here"},
    Entry{"droppedUnknownMethod", "messages for a method or event that the service does not have"},
    Entry{"droppedWrongVersion", "messages of another version of the interface"},
    Entry{"droppedWrongType", "messages of a type that makes no sense there"},
    Entry{"droppedUnexpected",
          "answers that no call waits for, and notifications without a "
          "subscription"},
    Entry{"droppedForeignPeer", "messages from an address outside the subnet, or not allowed"},
    Entry{"droppedEntries", "entries of service discovery that cannot be used"},
    Entry{"refusedSubscribers",
          "subscriptions past the bounds subscribersPerEventGroup and subscribersPerAddress"},
    Entry{"refusedReassemblies", "long messages past the bound on those in flight"},
    Entry{"refusedMessageSize", "messages longer than the bound"},
    Entry{"refusedConnections", "TCP connections past the bound"},
    Entry{"refusedCalls", "method calls of this process past the bound on pending ones"},
    Entry{"refusedRequests", "method calls of peers past the bound on waiting ones"},
    Entry{"refusedInstances", "offers past the bound on remembered instances"},
    Entry{"refusedPeers", "peers past the bound on remembered ones"},
    Entry{"refusedSegmented", "long messages that were not sent because too many are under way"},
    Entry{"slowReaders", "TCP peers disconnected because they do not read"},
    Entry{"sendWouldBlock", "datagrams dropped because the socket had no room"},
    Entry{"sendFailed", "datagrams that the kernel refused to send"},
};

/// A new counter needs a line above.
constexpr bool all_counters_explained() {
  return std::ranges::all_of(someip::counter_names, [](const auto& known) {
    return std::ranges::find(counters, known.name, &Entry::name) != counters.end();
  });
}
static_assert(all_counters_explained() && counters.size() == someip::counter_names.size());

constexpr std::array verdicts{
    Entry{"healthy", "positions flow, and no fault is present"},
    Entry{"degraded", "positions flow or the application has just started, and a fault is present"},
    Entry{"failed", "no positions flow"},
};

constexpr std::array statuses{
    Entry{name_of(Status::nominal), "data arrives in time"},
    Entry{name_of(Status::error),
          "no data within the time-out of 5 s; at least one notification had come before"},
    Entry{name_of(Status::init),
          "no data yet since the start. mapMatched and lbl stay Init: this application "
          "has no map matching that reports data, and no LBL system"},
    Entry{name_of(Status::not_available),
          "the sensor is not part of this setup, or the function not part of this "
          "application"},
};

constexpr std::array faults{
    Entry{member_of(Data_bus_fault::not_available),
          "a service that the application uses is missing (d_1190)"},
    Entry{member_of(Data_bus_fault::error_value_received),
          "a service sends a value that it marks as an error (d_1191)"},
    Entry{member_of(Data_bus_fault::implausible),
          "a service sends a value outside its physical range (d_1192)"},
};

constexpr std::array ages{
    Entry{"stampToArrival", "from the time stamp of the source to the arrival of the datagram"},
    Entry{"arrivalToHandler", "from the arrival to the beginning of the GNSS client's handler"},
    Entry{"handlerToSent", "from there until the Positioning service has sent the position"},
    Entry{"stampToSent", "the whole: from the time stamp of the source to the sent position"},
    Entry{"betweenArrivals", "between two notifications of positions"},
};

constexpr std::array abbreviations{
    Entry{"GNSS", "global navigation satellite system: the source of the positions"},
    Entry{"GNSS-DR", "a GNSS position that the source has completed by dead reckoning"},
    Entry{"DR", "dead reckoning: a position extrapolated from motion"},
    Entry{"MM", "map matching: a position placed on a road of the map"},
    Entry{"PGF",
          "a function that governs the status of the dead-reckoning output; not part of this "
          "application"},
    Entry{"LBL",
          "a function with a status of its own (POS_LBL_System); not part of this application"},
    Entry{"PLT", "precise local time, the time base of all stamps"},
    Entry{"DID", "data identifier: an output that a tester reads, such as d_14a0"},
    Entry{"TTL", "time to live: an offer or subscription ends unless it is renewed in time"},
};

class Terms {
 public:
  template <class Entries>
  void add_all(std::string_view kind, const Entries& entries) {
    for (const auto& entry : entries)
      add(kind, entry.name, entry.meaning);
  }
  void add(std::string_view kind, std::string_view name, std::string_view meaning) {
    terms_.push_back({std::string(kind), std::string(name), std::string(meaning)});
  }
  /// The members of a record.
  template <class Record>
  void add_members(std::string_view kind) {
    binding::for_each_member<Record>([&]<class M>(const M& member) {
      // Of the tables in docs/interfaces.md, which have more above them.
      constexpr std::string_view reference = ", see above";
      std::string meaning(member.meaning);
      if (meaning.ends_with(reference)) meaning.resize(meaning.size() - reference.size());
      if (!member.unit.empty())
        meaning += (meaning.empty() ? "in " : ", in ") + std::string(member.unit);
      if (!meaning.empty()) add(kind, member.name, meaning);
    });
  }
  std::vector<Term> take() { return std::move(terms_); }

 private:
  std::vector<Term> terms_;
};

void add_settings(Terms& terms) {
  for (const auto& setting : setting_table) {
    terms.add("setting", setting.key,
              std::string(setting.meaning) + "; default " + std::string(setting.usual) +
                  "; read once, at the start");
  }
}

void add_monitors(Terms& terms) {
  for (const auto& monitor : diagnosisService::monitor_table) {
    std::string meaning = "diagnostic monitor " + someip::hexadecimal(monitor.identifier, 6) + ": ";
    if (const auto group = name_of(monitor.group); !group.empty()) {
      meaning.append(group) += ", status byte " + std::to_string(monitor.byte);
    } else {
      meaning += "a fault of the data bus or the service registry";
    }
    terms.add("monitor", monitor.name, meaning);
  }
}

void add_identifiers(Terms& terms) {
  namespace diag = lumo::services::diag;
  diag::for_each_interface<diag::Data_identifiers>([&]<class Interface>() {
    terms.add("identifier", diag::identifier_of(Interface::name),
              std::string(mw::com::cpp_binding::short_name(Interface::name)) +
                  "; posctl read prints its bytes and their meaning");
  });
}

}  // namespace

std::vector<Term> glossary() {
  namespace diag = lumo::services::diag;
  namespace datatypes = lumo::services::positioning::datatypes;
  Terms terms;
  terms.add_all("verdict", verdicts);
  terms.add_all("status", statuses);
  diag::for_each_interface<diag::Status_identifiers>([&]<class Interface>() {
    using Output = typename Interface::Output;
    if constexpr (requires { Output::group; }) terms.add_members<Output>(name_of(Output::group));
  });
  terms.add_all("fault", faults);
  terms.add_all("age", ages);
  terms.add_members<binding::Stamp_counts>("stamp");
  terms.add_members<mw::com::runtime::Clock_state>("clock");
  terms.add_members<mw::com::runtime::Process_usage>("process");
  terms.add_all("counter", counters);
  add_settings(terms);
  add_identifiers(terms);
  add_monitors(terms);
  terms.add_members<datatypes::DT_positions_struct>("position");
  terms.add_members<datatypes::DT_posMapInfo_struct>("map information");
  terms.add_all("abbreviation", abbreviations);
  return terms.take();
}

}  // namespace posctl
