#include "tools/posctl/doctor/programs.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <system_error>

namespace posctl::doctor {

namespace {

namespace fs = std::filesystem;

struct Known_program {
  std::string_view name;
  Role role;
};
constexpr std::array known_programs{
    Known_program{"POS__ORVEL1_Sys_Adaptive_01_Exe", Role::application},
    Known_program{"gnss-gateway", Role::source}, Known_program{"posctl", Role::tool}};
/// The kernel cuts the name of a command.
constexpr std::size_t longest_command = 15;

/// Empty if it cannot be read: a process may end at any moment.
std::string text_of(const fs::path& file) {
  const std::ifstream stream(file, std::ios::binary);
  std::ostringstream text;
  // Unlike an iterator of the buffer, this keeps the error in the stream and does not throw.
  text << stream.rdbuf();
  return text.str();
}

std::string target_of(const fs::path& link) {
  std::error_code error;
  return fs::read_symlink(link, error).string();
}

std::optional<pid_t> pid_of(const fs::path& folder) {
  const std::string name = folder.filename();
  pid_t pid = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), pid);
  if (error != std::errc{} || end != name.data() + name.size()) return std::nullopt;
  return pid;
}

/// The processes of the machine; one that ends meanwhile is left out.
template <class Take>
void for_each_process(Take&& take) {
  std::error_code error;
  for (fs::directory_iterator at("/proc", error), end; !error && at != end; at.increment(error)) {
    if (const auto pid = pid_of(at->path())) take(*pid, at->path());
  }
}

const Known_program* known_program(const fs::path& folder) {
  std::string name = fs::path(target_of(folder / "exe")).filename();
  // A program that was built anew while it runs.
  if (const auto deleted = name.find(" (deleted)"); deleted != std::string::npos)
    name.resize(deleted);
  std::string command = text_of(folder / "comm");
  while (command.ends_with('\n'))
    command.pop_back();
  const auto* const found = std::ranges::find_if(known_programs, [&](const Known_program& one) {
    return name.empty() ? command == one.name.substr(0, longest_command) : name == one.name;
  });
  return found == known_programs.end() ? nullptr : found;
}

std::map<std::string, std::string> variables_of(const std::string& environment) {
  std::map<std::string, std::string> variables;
  std::istringstream stream(environment);
  for (std::string one; std::getline(stream, one, '\0');) {
    if (const auto equals = one.find('='); equals != std::string::npos)
      variables.emplace(one.substr(0, equals), one.substr(equals + 1));
  }
  return variables;
}

/// The rest of the line that begins with `key`.
std::string line_of(const std::string& text, const std::string& key) {
  const auto at = text.starts_with(key) ? 0 : text.find("\n" + key);
  if (at == std::string::npos) return {};
  const auto begin = text.find(key, at) + key.size();
  return text.substr(begin, text.find('\n', begin) - begin);
}

std::uint64_t limit_of(const std::string& limits, const std::string& key) {
  std::istringstream line(line_of(limits, key));
  std::uint64_t soft = 0;
  return line >> soft ? soft : 0;  // also 0 for "unlimited"
}

std::string manifest_of(const Program& program, const fs::path& folder) {
  if (!program.environment) return {};
  if (const auto* named = program.variable("POS_MANIFEST"); named != nullptr && !named->empty()) {
    const fs::path path(*named);
    return path.is_absolute() ? path : fs::path(target_of(folder / "cwd")) / path;
  }
  const auto prefix = fs::path(target_of(folder / "exe")).parent_path().parent_path();
  for (const auto& file :
       {fs::path("/etc/pos/manifest.json"), prefix / "share/pos/manifest.json"}) {
    std::error_code error;
    if (fs::is_regular_file(file, error)) return file;
  }
  return {};
}

Program read_program(pid_t pid, const fs::path& folder, const Known_program& known) {
  Program program;
  program.pid = pid;
  program.role = known.role;
  program.name = known.role == Role::application ? "the application" : known.name;
  const std::string stat = text_of(folder / "stat");
  if (const auto end = stat.rfind(')'); end != std::string::npos && end + 2 < stat.size())
    program.state = stat[end + 2];
  const std::string status = text_of(folder / "status");
  std::istringstream(line_of(status, "Uid:")) >> program.user;
  std::istringstream groups(line_of(status, "Groups:") + " " + line_of(status, "Gid:"));
  std::copy(std::istream_iterator<gid_t>(groups), {}, std::back_inserter(program.groups));
  if (::access((folder / "environ").c_str(), R_OK) == 0) {
    if (const auto text = text_of(folder / "environ"); !text.empty())
      program.environment = variables_of(text);
  }
  program.manifest = manifest_of(program, folder);
  const std::string limits = text_of(folder / "limits");
  program.descriptor_limit = limit_of(limits, "Max open files");
  program.process_limit = limit_of(limits, "Max processes");
  std::error_code error;
  for (fs::directory_iterator at(folder / "fd", error), end; !error && at != end;
       at.increment(error)) {
    ++program.descriptors;
  }
  return program;
}

/// A row of /proc/net/udp, as far as it is used here.
struct Udp_row {
  std::string local, inode;
  std::uint64_t drops = 0;
};

std::vector<Udp_row> udp_rows() {
  std::vector<Udp_row> rows;
  std::istringstream table(text_of("/proc/net/udp"));
  std::string line;
  std::getline(table, line);  // the heading
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    std::string skipped;
    Udp_row row;
    constexpr int between_local_and_inode = 7;
    fields >> skipped >> row.local;
    for (int i = 0; i < between_local_and_inode; ++i)
      fields >> skipped;
    fields >> row.inode >> skipped >> skipped >> row.drops;
    if (fields) rows.push_back(row);
  }
  return rows;
}

/// The kernel writes the bytes as they lie in memory.
std::string as_in_proc(std::uint32_t ipv4) {
  std::array<char, 16> text{};
  std::snprintf(text.data(), text.size(), "%08X", htonl(ipv4));
  return text.data();
}

}  // namespace

const std::string* Program::variable(const std::string& key) const {
  if (!environment) return nullptr;
  const auto found = environment->find(key);
  return found == environment->end() ? nullptr : &found->second;
}

std::vector<Program> find_programs() {
  std::vector<Program> programs;
  const std::string own_network = target_of("/proc/self/ns/net");
  for_each_process([&](pid_t pid, const fs::path& folder) {
    if (pid == ::getpid()) return;
    const auto* const known = known_program(folder);
    if (known == nullptr) return;
    // The namespace of another user's process may not be read. It counts as this one. A process
    // that ends has none any more.
    std::error_code error;
    const std::string network = fs::read_symlink(folder / "ns/net", error).string();
    if (error != std::errc::permission_denied && network != own_network) return;
    programs.push_back(read_program(pid, folder, *known));
    if (programs.back().state == 'Z') programs.pop_back();
  });
  return programs;
}

std::optional<Socket_owner> owner_of_udp_port(std::uint32_t ipv4, std::uint16_t port) {
  std::array<char, 8> text{};
  std::snprintf(text.data(), text.size(), ":%04X", port);
  const auto rows = udp_rows();
  const auto row = std::ranges::find(rows, as_in_proc(ipv4) + text.data(), &Udp_row::local);
  if (row == rows.end()) return std::nullopt;
  const std::string socket = "socket:[" + row->inode + "]";
  Socket_owner owner{0, "a process that is not visible here"};
  for_each_process([&](pid_t pid, const fs::path& folder) {
    std::error_code error;
    for (fs::directory_iterator at(folder / "fd", error), end; !error && at != end;
         at.increment(error)) {
      if (target_of(at->path()) != socket) continue;
      std::string command = text_of(folder / "comm");
      while (command.ends_with('\n'))
        command.pop_back();
      owner = {pid, command + " (pid " + std::to_string(pid) + ")"};
      return;
    }
  });
  return owner;
}

std::uint64_t datagrams_dropped_at(std::uint32_t ipv4) {
  std::uint64_t drops = 0;
  for (const Udp_row& row : udp_rows()) {
    if (row.local.starts_with(as_in_proc(ipv4))) drops += row.drops;
  }
  return drops;
}

std::string output_of(const std::vector<std::string>& command) {
  constexpr std::chrono::seconds patience{1};
  constexpr std::size_t longest = 1U << 20U;
  std::array<int, 2> pipe{};
  if (::pipe2(pipe.data(), O_CLOEXEC) != 0) return {};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipe[1], STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (const std::string& one : command)
    arguments.push_back(const_cast<char*>(one.c_str()));  // posix_spawn() only reads them
  arguments.push_back(nullptr);
  pid_t child = 0;
  const int error =
      ::posix_spawnp(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(pipe[1]);
  std::string output;
  const auto deadline = std::chrono::steady_clock::now() + patience;
  bool ended = error != 0;
  while (!ended && output.size() < longest) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd readable{pipe[0], POLLIN, 0};
    if (left.count() <= 0 || ::poll(&readable, 1, static_cast<int>(left.count())) <= 0) break;
    std::array<char, 4096> block{};
    const auto size = ::read(pipe[0], block.data(), block.size());
    ended = size <= 0;
    if (size > 0) output.append(block.data(), static_cast<std::size_t>(size));
  }
  ::close(pipe[0]);
  if (error != 0) return {};
  if (!ended) ::kill(child, SIGKILL);
  int status = 0;
  ::waitpid(child, &status, 0);
  return ended && status == 0 ? output : std::string();
}

}  // namespace posctl::doctor
