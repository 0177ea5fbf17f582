/// Storage, log and bus.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <system_error>

#include "ara/per/exceptions.h"
#include "platform/linux/per/json_text.h"
#include "platform/linux/per/location.h"
#include "platform/linux/per/store_file.h"
#include "tools/posctl/doctor/checks.h"
#include "tools/posctl/doctor/store.h"

namespace posctl::doctor {

namespace {

/// The folder of the application's stores; nothing if the application does not run here: then the
/// folder of this environment says nothing about it.
std::optional<std::string> folder(const Facts& facts) try {
  const auto* const application = facts.program(Role::application);
  if (application == nullptr || !application->environment) return std::nullopt;
  return ara::per::storage_folder();
} catch (const ara::per::ExceptionStorageLocationNotFound&) {
  return std::nullopt;
}

/// May the program's user write there? By the mode of the file.
bool may_write(const Program& program, const struct stat& status) {
  if (program.user == 0) return true;
  if (status.st_uid == program.user) return (status.st_mode & S_IWUSR) != 0;
  const bool of_group = std::ranges::find(program.groups, status.st_gid) != program.groups.end();
  return (status.st_mode & (of_group ? S_IWGRP : S_IWOTH)) != 0;
}

std::string user_text(const Program& program) {
  return "user " + std::to_string(program.user) + " of " + program.label();
}

/// The program runs as a service, or its environment names a bus.
bool needs_bus(const Program& application) {
  return application.variable("POS_STATE_BUS") != nullptr ||
         application.variable("NOTIFY_SOCKET") != nullptr;
}

}  // namespace

void check_storage_folder(const Facts& facts, Findings& findings) {
  const auto path = folder(facts);
  struct stat status {};
  if (!path || (::stat(path->c_str(), &status) == 0 && S_ISDIR(status.st_mode))) return;
  findings.fault("the folder of the key-value storage is missing", *path + " is no folder",
                 "mkdir -p " + *path + "; restart the application");
}

void check_storage_writable(const Facts& facts, Findings& findings) {
  const auto path = folder(facts);
  const auto* const application = facts.program(Role::application);
  struct stat status {};
  if (!path || ::stat(path->c_str(), &status) != 0) return;
  struct statvfs system {};
  if (::statvfs(path->c_str(), &system) == 0 && (system.f_flag & ST_RDONLY) != 0) {
    findings.fault("the key-value storage is on a file system that is mounted read-only", *path,
                   "mount -o remount,rw <its mount point>: findmnt --target " + *path);
  } else if (!may_write(*application, status)) {
    findings.fault("the application may not write to its key-value storage",
                   user_text(*application) + " has no write permission in " + *path,
                   "chown -R " + std::to_string(application->user) + " " + *path);
  }
}

void check_storage_content(const Facts& facts, Findings& findings) {
  const auto file = store_path();
  if (!folder(facts) || !file) return;
  const std::string& path = *file;
  try {
    std::ifstream stream(path, std::ios::binary);
    if (!stream) return;
    std::string text(ara::per::max_file_size + 1, '\0');
    stream.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(stream.gcount()));
    static_cast<void>(ara::per::parse_values(text, path));
  } catch (const std::exception& error) {
    findings.fault("the key-value storage is damaged", error.what(),
                   "mv " + path + " " + path +
                       ".damaged; restart the application: it begins with the "
                       "first values");
  }
}

void check_storage_space(const Facts& facts, Findings& findings) {
  constexpr std::uint64_t least_bytes = std::uint64_t{64} * 1024;
  const auto path = folder(facts);
  struct statvfs system {};
  if (!path || ::statvfs(path->c_str(), &system) != 0) return;
  const std::uint64_t left = std::uint64_t{system.f_bavail} * system.f_frsize;
  const bool no_files = system.f_files != 0 && system.f_favail == 0;
  if (system.f_blocks == 0 || (left >= least_bytes && !no_files)) return;
  findings.fault(
      "the file system of the key-value storage is full",
      *path + ": " +
          (no_files ? "no file can be created" : std::to_string(left) + " bytes are free"),
      "make room: df " + *path + "; du -x " + *path);
}

void check_storage_shared(const Facts& facts, Findings& findings) {
  std::map<std::string, const Program*> users;
  for (const Program& one : facts.programs) {
    if (one.role != Role::application || !one.environment) continue;
    std::string path;
    for (const char* name : {"POS_STORAGE_DIR", "STATE_DIRECTORY", "XDG_STATE_HOME", "HOME"}) {
      if (const auto* value = one.variable(name); value != nullptr && !value->empty()) {
        path = *value;
        break;
      }
    }
    const auto [other, first] = users.emplace(path, &one);
    if (first) continue;
    findings.fault("two applications use one key-value storage",
                   other->second->label() + " and " + one.label() + " both have " + path,
                   "end one: kill " + std::to_string(one.pid) +
                       "; or give it a folder of its own: POS_STORAGE_DIR");
  }
}

void check_log_daemon(const Facts& facts, Findings& findings) {
  const auto* const application = facts.program(Role::application);
  if (application == nullptr || !application->environment) return;
  const char* const place = std::getenv("DLT_PIPE_DIR");
  const std::string pipe = std::string(place != nullptr ? place : "/tmp") + "/dlt";
  struct stat status {};
  if (::stat(pipe.c_str(), &status) != 0) {
    findings.note("no DLT daemon: the application logs to standard error", pipe + " does not exist",
                  "systemctl start dlt, if the log is to go there");
    return;
  }
  if (!S_ISFIFO(status.st_mode)) {
    findings.fault("the pipe of the DLT daemon is another file", pipe + " is no pipe",
                   "rm " + pipe + "; systemctl restart dlt");
    return;
  }
  if (!may_write(*application, status)) {
    findings.fault(
        "the application has no right to the pipe of the DLT daemon",
        user_text(*application) + " may not write to " + pipe,
        "SupplementaryGroups=<group of the pipe> in the [Service] section: systemctl edit pos");
    return;
  }
  const int opened = ::open(pipe.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  if (opened >= 0) {
    ::close(opened);
  } else if (errno == ENXIO) {
    findings.fault("the DLT daemon has ended and left its pipe",
                   "no program reads " + pipe + "; the application logs to standard error",
                   "systemctl restart dlt");
  }
}

void check_bus(const Facts& facts, Findings& findings) {
  const auto* const application = facts.program(Role::application);
  if (application == nullptr || !application->environment || !facts.bus.asked) return;
  const auto add = [&](const char* text, const std::string& evidence, const char* cure) {
    if (needs_bus(*application)) {
      findings.fault(text, evidence, cure);
    } else {
      findings.note(text, evidence, cure);
    }
  };
  if (!facts.bus.error.empty()) {
    add("the bus of the component states cannot be reached", facts.bus.error,
        "systemctl restart dbus, then the application; without state management: "
        "POS_STATE_BUS=none");
  } else if (!facts.bus.owned) {
    add("the application has no name on the bus, so state management cannot reach it",
        "org.adaptive.pos has no owner there",
        "install org.adaptive.pos.conf, systemctl reload dbus, restart the application");
  }
}

}  // namespace posctl::doctor
