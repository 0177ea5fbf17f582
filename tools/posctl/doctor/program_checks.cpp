/// Manifest and programs.
#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "app/identity.h"
#include "platform/linux/com/manifest.h"
#include "tools/posctl/doctor/checks.h"

namespace posctl::doctor {

namespace {

using Json = nlohmann::json;

/// The values of a manifest that its programs must share, by their paths. Numbers in text, such as
/// "0x2A10", are numbers.
std::map<std::string, Json> shared_values(const std::string& text) {
  const Json manifest = Json::parse(text, nullptr, false);
  std::map<std::string, Json> values;
  if (!manifest.is_object()) return values;
  const Json flat = manifest.flatten();
  for (const auto& [path, value] : flat.items()) {
    const bool of_network = path.starts_with("/services/") ||
                            path == "/serviceDiscovery/multicastAddress" ||
                            path == "/serviceDiscovery/port";
    if (!of_network || path.find("/allowedPeers") != std::string::npos) continue;
    values[path] = value;
    if (!value.is_string()) continue;
    const auto& written = value.get_ref<const std::string&>();
    if (written.starts_with("0x")) values[path] = std::strtoull(written.c_str(), nullptr, 16);
  }
  return values;
}

/// Empty for a file that is no manifest.
std::string manifest_text(const std::string& file) try {
  if (file.empty()) return std::string(positioning_application().manifest);
  return tq::com::read_manifest(file).value_or(std::string());
} catch (const std::runtime_error&) {
  return {};
}

std::string file_name(const std::string& manifest) {
  return manifest.empty() ? "the built-in manifest" : manifest;
}

/// The first few values that differ, such as "/services/…/id: 10768 and 10769".
std::string differences(const std::string& one, const std::string& other) {
  constexpr int most = 3;
  const auto values = shared_values(manifest_text(one));
  const auto others = shared_values(manifest_text(other));
  std::string text;
  int count = 0;
  for (const auto& [path, value] : values) {
    const auto found = others.find(path);
    if (found == others.end() || found->second == value) continue;
    if (++count > most) continue;
    text += (text.empty() ? "" : "; ") + path.substr(1) + ": " + value.dump() + " and " +
            found->second.dump();
  }
  return count > most ? text + "; and " + std::to_string(count - most) + " more" : text;
}

}  // namespace

void check_manifest(const Facts& facts, Findings& findings) {
  if (facts.manifest_error.empty()) return;
  findings.fault("the deployment manifest cannot be used", facts.manifest_error,
                 "correct the file, then: posctl describe");
}

void check_same_manifest(const Facts& facts, Findings& findings) {
  const auto* const reference = facts.program(Role::application);
  if (reference == nullptr || !reference->environment) return;
  for (const Program& one : facts.programs) {
    if (one.pid == reference->pid || !one.environment || one.role == Role::application ||
        one.manifest == reference->manifest) {
      continue;
    }
    const std::string different = differences(reference->manifest, one.manifest);
    if (different.empty()) continue;
    findings.fault(one.label() + " uses another manifest than " + reference->label(),
                   file_name(reference->manifest) + " and " + file_name(one.manifest) +
                       " differ: " + different,
                   "start " + one.name +
                       (reference->manifest.empty() ? " without POS_MANIFEST"
                                                    : " with POS_MANIFEST=" + reference->manifest));
  }
}

void check_application(const Facts& facts, Findings& findings) {
  const auto* const local = facts.program(Role::application);
  if (local != nullptr && local->stopped()) {
    findings.fault("the application is stopped by a signal",
                   "/proc says state T of " + local->label(),
                   "kill -CONT " + std::to_string(local->pid));
  } else if (local == nullptr && !facts.after) {
    findings.fault(
        "no application runs here, and none answers from the network",
        "no such process; " +
            (facts.answer_error.empty() ? "its service was not searched for" : facts.answer_error),
        "systemctl start pos, or scripts/run; a start that fails says why in its last "
        "line: journalctl -u pos");
  } else if (facts.application_mute() && facts.node_error.empty() && facts.deployment) {
    findings.fault("the application runs and does not answer",
                   local->label() + ": " + facts.answer_error,
                   "see the other findings; otherwise its log: journalctl -u pos");
  }
}

void check_restarting(const Facts& facts, Findings& findings) {
  constexpr std::uint64_t young_ms = 60'000;
  const auto runs = [](const std::vector<Program>& programs, pid_t pid) {
    return std::ranges::find(programs, pid, &Program::pid) != programs.end();
  };
  for (const Program& one : facts.programs) {
    if (one.role != Role::application || runs(facts.programs_later, one.pid)) continue;
    findings.fault("the application ends and is started again and again",
                   one.label() + " ended while doctor looked",
                   "its last lines say why: journalctl -u pos -n 50");
    return;
  }
  if (facts.restarts >= 3 && facts.after && facts.after->process.uptimeMs < young_ms) {
    findings.fault("the application ends and is started again and again",
                   "systemd has restarted it " + std::to_string(facts.restarts) + " times, it is " +
                       std::to_string(facts.after->process.uptimeMs / 1000) + " s old",
                   "its last lines say why: journalctl -u pos -n 50");
  }
}

void check_watchdog(const Facts& facts, Findings& findings) {
  const auto* const local = facts.program(Role::application);
  if (local == nullptr || local->variable("NOTIFY_SOCKET") == nullptr) return;
  const auto* const period = local->variable("WATCHDOG_USEC");
  if (period != nullptr && *period != "0") return;
  findings.fault(
      "the service manager does not supervise the application",
      local->label() + " has NOTIFY_SOCKET and no WATCHDOG_USEC",
      "WatchdogSec=5 in the [Service] section: systemctl edit pos; systemctl restart pos");
}

void check_limits(const Facts& facts, Findings& findings) {
  constexpr std::uint64_t spare_descriptors = 128;
  constexpr std::uint64_t least_processes = 64;
  for (const Program& one : facts.programs) {
    if (one.role == Role::tool) continue;
    if (one.descriptor_limit != 0 && one.descriptor_limit < one.descriptors + spare_descriptors) {
      findings.fault(one.name + " may open too few descriptors",
                     one.label() + " has " + std::to_string(one.descriptors) +
                         " open, its limit is " + std::to_string(one.descriptor_limit),
                     "prlimit --pid " + std::to_string(one.pid) +
                         " --nofile=1024; for good: LimitNOFILE=1024 in the unit");
    }
    if (one.process_limit != 0 && one.process_limit < least_processes) {
      findings.fault(one.name + " may start too few threads",
                     one.label() + " has a limit of " + std::to_string(one.process_limit) +
                         " processes and threads of its user",
                     "prlimit --pid " + std::to_string(one.pid) +
                         " --nproc=1024; for good: LimitNPROC=1024 in the unit");
    }
  }
}

void check_tool(const Facts& facts, Findings& findings) {
  if (!facts.node_error.empty() && facts.after) {
    findings.note("posctl has no address for itself, so it receives no positions of the source",
                  facts.node_error + "; it asked the application through its Unix socket",
                  "give the node posctl an address of this machine in the manifest");
  } else if (!facts.node_error.empty()) {
    findings.note("posctl has no address for itself, so it could not ask the application",
                  facts.node_error,
                  "give the node posctl an address of this machine in the manifest");
  } else if (!facts.listen_error.empty()) {
    findings.note("posctl could not listen to service discovery", facts.listen_error,
                  "give the node posctl an address of this machine in the manifest");
  }
}

}  // namespace posctl::doctor
