/// The command: looks, runs every check, prints.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>

#include "tools/command.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/doctor/checks.h"
#include "tools/posctl/doctor/look.h"
#include "tools/posctl/record_json.h"

namespace posctl {

namespace {

using doctor::Severity;

constexpr int exit_findings = 1;
constexpr int exit_could_not_look = 2;

std::string paragraph(const doctor::Finding& one) {
  const bool fault = one.severity == Severity::fault;
  return (fault ? "FAULT " : "note ") + one.check + ": " + one.text +
         "\n  known by: " + one.evidence + "\n  " + (fault ? "mend: " : "if needed: ") + one.cure +
         "\n";
}

std::string page_of(const std::vector<doctor::Finding>& findings, bool could_look, double seconds) {
  const auto faults = std::ranges::count(findings, Severity::fault, &doctor::Finding::severity);
  char head[96];
  if (faults == 0) {
    std::snprintf(
        head, sizeof head, "%s (%zu checks, %.1f s)\n",
        could_look ? "Nothing wrong" : "Nothing found, but doctor could not see everything",
        doctor::checks().size(), seconds);
  } else {
    std::snprintf(head, sizeof head, "%td fault%s (%zu checks, %.1f s)\n", faults,
                  faults == 1 ? "" : "s", doctor::checks().size(), seconds);
  }
  std::string page = head;
  for (const auto severity : {Severity::fault, Severity::note}) {
    for (const doctor::Finding& one : findings) {
      if (one.severity == severity) page += "\n" + paragraph(one);
    }
  }
  return page;
}

Json report_of(const std::vector<doctor::Finding>& findings, bool could_look, double seconds) {
  Json json{{"schema", 1}, {"seconds", seconds}, {"couldLook", could_look}};
  Json& rows = json["findings"] = Json::array();
  for (const doctor::Finding& one : findings) {
    rows.push_back({{"check", one.check},
                    {"severity", one.severity == Severity::fault ? "fault" : "note"},
                    {"text", one.text},
                    {"evidence", one.evidence},
                    {"cure", one.cure}});
  }
  return json;
}

std::string table_of_checks() {
  std::string table = "| check | finds | how it knows | cure |\n|---|---|---|---|\n";
  for (const doctor::Check& one : doctor::checks()) {
    table += "| `" + std::string(one.name) + "` | " + std::string(one.fault) + " | " +
             std::string(one.evidence) + " | " + std::string(one.cure) + " |\n";
  }
  return table;
}

}  // namespace

int examine(const Doctor_options& options) {
  if (options.list) {
    tools::write_output(table_of_checks());
    return 0;
  }
  const auto start = std::chrono::steady_clock::now();
  doctor::Facts facts;
  try {
    facts = doctor::look(options.node);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "posctl: doctor could not look: %s\n", error.what());
    return exit_could_not_look;
  }
  doctor::Findings findings;
  for (const doctor::Check& one : doctor::checks()) {
    findings.begin(std::string(one.name));
    one.look(facts, findings);
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const bool could_look = facts.after.has_value() && facts.listen_error.empty();
  tools::write_output(options.json ? report_of(findings.all(), could_look, seconds)
                                             .dump(-1, ' ', false, Json::error_handler_t::replace) +
                                         "\n"
                                   : page_of(findings.all(), could_look, seconds));
  if (std::ranges::find(findings.all(), Severity::fault, &doctor::Finding::severity) !=
      findings.all().end())
    return exit_findings;
  return could_look ? 0 : exit_could_not_look;
}

}  // namespace posctl
