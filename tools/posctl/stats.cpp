#include <array>
#include <cstdio>

#include "tools/command.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/statistics_page.h"

namespace posctl {

using binding::Statistics;
using binding::Statistics_proxy;

namespace {

/// A row of the table of ages; a time in nanoseconds is shown in milliseconds.
std::string age_row(const std::string& name, const Json& age) {
  std::array<char, 128> text{};
  const auto ms = [&](const char* member) { return age[member].get<double>() / 1e6; };
  std::snprintf(text.data(), text.size(), "%-18s %8llu %9.3f %9.3f %9.3f %9.3f %9.3f", name.c_str(),
                static_cast<unsigned long long>(age["count"].get<std::uint64_t>()), ms("minNs"),
                ms("p50Ns"), ms("p99Ns"), ms("p999Ns"), ms("maxNs"));
  return text.data();
}

std::string count_of(const Json& stamps, const char* member, const char* text) {
  const auto count = stamps[member].get<std::uint64_t>();
  return count == 0 ? std::string() : ", " + std::to_string(count) + " " + text;
}

}  // namespace

Json read_statistics(Statistics_proxy& service, Deadline deadline) {
  Json json{{"schema", 1}};
  json["process"] = to_json(result_of(service.Process(), Statistics::Process.name, deadline));
  json["clock"] = to_json(result_of(service.Clock(), Statistics::Clock.name, deadline));
  json["stamps"] = to_json(result_of(service.Stamps(), Statistics::Stamps.name, deadline));
  Json& ages = json["ages"] = Json::object();
  for (const binding::Age& age : result_of(service.Ages(), Statistics::Ages.name, deadline)) {
    Json shown = to_json(age);
    shown.erase("name");
    shown.erase("windowS");
    const auto window =
        age.windowS == 0 ? "sinceStart" : "last" + std::to_string(age.windowS) + "S";
    ages[age.name][window] = std::move(shown);
  }
  Json& counters = json["counters"] = Json::object();
  for (const auto& [name, value] :
       result_of(service.Counters(), Statistics::Counters.name, deadline)) {
    counters[name] = value;
  }
  return json;
}

void print_process(Page& page, const Json& process) {
  constexpr double mebibyte = 1024.0 * 1024.0;
  const Json shown{{"uptime", process["uptimeMs"].get<double>() / 1000},
                   {"resident", process["residentBytes"].get<double>() / mebibyte}};
  page.section("Process");
  page.item("uptime", decimal(shown, "uptime", 1, "s"));
  page.item("resident memory", decimal(shown, "resident", 1, "MiB"));
  page.item("threads", process["threads"].dump());
}

std::string clock_mark(const Json& clock) {
  return clock["synchronised"].get<bool>() ? "" : " (clock not synchronised)";
}

void print_clock(Page& page, const Json& clock) {
  const bool synchronised = clock["synchronised"].get<bool>();
  page.section("Clock");
  page.item("state", synchronised ? "synchronised" : "not synchronised");
  page.item("steps since the start", clock["steps"].dump());
  if (!synchronised) return;
  page.item("estimated error", clock["estimatedErrorUs"].dump() + " us");
  page.item("maximum error", clock["maximumErrorUs"].dump() + " us");
  page.item("TAI - UTC", clock["taiOffsetS"].dump() + " s");
}

void print_ages(Page& page, const Json& statistics) {
  const Json& ages = statistics["ages"];
  const auto table = [&](const char* title, const char* window) {
    page.section(title + clock_mark(statistics["clock"]));
    page.line("ms                    count       min    median      99 %    99.9 %   longest");
    page.line(age_row("stamp to arrival", ages["stampToArrival"][window]));
    page.line(age_row("arrival to handler", ages["arrivalToHandler"][window]));
    page.line(age_row("handler to sent", ages["handlerToSent"][window]));
    page.line(age_row("stamp to sent", ages["stampToSent"][window]));
    page.line(age_row("between arrivals", ages["betweenArrivals"][window]));
  };
  table("Ages of positions over the last 10 s", "last10S");
  table("Ages of positions since the start", "sinceStart");
  const Json& stamps = statistics["stamps"];
  page.line("stamps: " + stamps["notifications"].dump() + " notifications" +
            count_of(stamps, "missing", "without a stamp") +
            count_of(stamps, "inFuture", "in the future") +
            count_of(stamps, "standingStill", "standing still") +
            count_of(stamps, "jumped", "jumped"));
}

void print_counters(Page& page, const Json& counters) {
  page.section("Counters");
  for (const auto& [name, value] : counters.items())
    page.item(name, value.dump());
}

int stats(const Look_options& options) {
  const Json json = on_the_way(options.way, [&] {
    const auto deadline = deadline_in(options.timeout);
    const auto service = connect<Statistics_proxy>(Statistics::name, deadline);
    return read_statistics(*service, deadline);
  });
  if (options.json) {
    tools::write_output(json.dump() + "\n");
    return 0;
  }
  Page page;
  print_process(page, json["process"]);
  print_clock(page, json["clock"]);
  print_ages(page, json);
  print_counters(page, json["counters"]);
  tools::write_output(page.take());
  return 0;
}

}  // namespace posctl
