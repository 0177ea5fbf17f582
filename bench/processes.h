/// The programs under test as child processes: where they run, and what they take.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/wire.h"

namespace bench {

/// The processors that this program may use when it starts.
inline std::vector<std::size_t> processors() {
  cpu_set_t set;
  std::vector<std::size_t> result;
  if (sched_getaffinity(0, sizeof set, &set) != 0) return result;
  for (std::size_t i = 0; i < CPU_SETSIZE; ++i) {
    if (CPU_ISSET(i, &set)) result.push_back(i);
  }
  return result;
}

/// Binds the calling thread, and what it starts from then on, to one processor.
inline void run_on(std::size_t processor) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(processor, &set);
  sched_setaffinity(0, sizeof set, &set);
}

/// While one lives the processors do not halt when there is nothing to do: on each a thread spins
/// that gives way to any other at once. A virtual machine's processor that halted comes back late
/// and elsewhere, with the caches and the predictions of another.
class Awake {
 public:
  explicit Awake(const std::vector<std::size_t>& processors) {
    for (const auto processor : processors) {
      threads_.emplace_back([processor](const std::stop_token& stop) {
        run_on(processor);
        const sched_param none{};
        if (sched_setscheduler(0, SCHED_IDLE, &none) != 0) return;
        while (!stop.stop_requested()) {
#if defined(__x86_64__)
          __builtin_ia32_pause();
#endif
        }
      });
    }
  }

 private:
  std::vector<std::jthread> threads_;
};

/// Two machines joined by a cable: two network namespaces, a veth pair between them. They have no
/// names, so the kernel takes them down with the last process in them, however that ends.
/// The calling thread, and the sockets, threads and processes that it makes, are on the bench.
class Cable {
 public:
  /// Throws, in the network where it was called, when this process may not make namespaces.
  Cable() {
    bench_.make();
    vehicle_.make();
    configure({"link set lo up",
               "link add vehicle type veth peer name bench netns /proc/" +
                   std::to_string(getpid()) + "/fd/" + std::to_string(bench_.descriptor),
               "address add 10.66.0.10/24 dev vehicle", "address add 10.66.0.11/24 dev vehicle",
               "address add 10.66.0.40/24 dev vehicle", "address add 10.66.0.41/24 dev vehicle",
               "link set vehicle up"});
    setns(bench_.descriptor, CLONE_NEWNET);
    configure({"link set lo up", "address add 10.66.0.20/24 dev bench",
               "address add 10.66.0.21/24 dev bench", "link set bench up"});
  }
  /// As `loopback`, with the application and the relay on the other side; `number` is 0 or 1.
  static Addresses addresses(int number) { return {"10.66.0.", 24, number}; }
  /// The namespace of the application and the relay.
  [[nodiscard]] int vehicle() const { return vehicle_.descriptor; }

 private:
  struct Namespace {
    int descriptor = -1;

    Namespace() = default;
    ~Namespace() { ::close(descriptor); }
    Namespace(const Namespace&) = delete;
    Namespace& operator=(const Namespace&) = delete;

    void open() { descriptor = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC); }
    /// The calling thread is in it from then on.
    void make() {
      if (unshare(CLONE_NEWNET) != 0) throw std::runtime_error{std::strerror(errno)};
      open();
    }
  };
  struct Home : Namespace {
    Home() { open(); }
    ~Home() { setns(descriptor, CLONE_NEWNET); }
  };

  static void configure(const std::vector<std::string>& commands) {
    std::FILE* ip = popen("ip -batch -", "w");
    if (ip == nullptr) throw std::runtime_error{std::strerror(errno)};
    for (const auto& command : commands)
      std::fprintf(ip, "%s\n", command.c_str());
    if (pclose(ip) != 0) throw std::runtime_error{"ip could not set up the network"};
  }

  Home home_;
  Namespace bench_;
  Namespace vehicle_;
};

/// Where a child runs, unless where its parent does.
struct Place {
  std::optional<std::size_t> processor;
  std::optional<int> network;  ///< an open namespace
};

class Child {
 public:
  using Environment = std::vector<std::pair<std::string, std::string>>;

  explicit Child(std::vector<std::string> command,
                 const Environment& environment = {},
                 const Place& place = {})
      : pid_{fork()} {
    if (pid_ < 0) throw std::runtime_error{std::string{"fork: "} + std::strerror(errno)};
    if (pid_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (place.network && setns(*place.network, CLONE_NEWNET) != 0) _exit(126);
    if (place.processor) run_on(*place.processor);
    for (const auto& [name, value] : environment)
      setenv(name.c_str(), value.c_str(), 1);
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (auto& part : command)
      arguments.push_back(part.data());
    arguments.push_back(nullptr);
    if (std::freopen("/dev/null", "w", stderr) == nullptr) _exit(126);
    execv(arguments[0], arguments.data());
    _exit(127);
  }
  ~Child() {
    kill(pid_, SIGTERM);
    waitpid(pid_, nullptr, 0);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  [[nodiscard]] pid_t pid() const { return pid_; }

 private:
  pid_t pid_;
};

inline long resident_kib(pid_t pid) {
  std::ifstream status{"/proc/" + std::to_string(pid) + "/status"};
  std::string word;
  long kib = 0;
  while (status >> word) {
    if (word == "VmRSS:") status >> kib;
  }
  return kib;
}

/// Of all threads, as the scheduler counts.
inline double cpu_seconds(pid_t pid) {
  double nanoseconds = 0;
  for (const auto& task :
       std::filesystem::directory_iterator{"/proc/" + std::to_string(pid) + "/task"}) {
    double one = 0;
    std::ifstream{task.path() / "schedstat"} >> one;
    nanoseconds += one;
  }
  return nanoseconds / 1e9;
}

/// The application, with a manifest of its own, from the construction on.
class Application {
 public:
  using Change = std::function<void(nlohmann::json& manifest)>;

  Application(const std::string& program,
              const Addresses& at,
              const Place& place = {},
              const Change& change = {})
      : folder_{"/tmp/pos-bench-" + std::to_string(getpid()) + "-" + at.application} {
    std::filesystem::create_directories(folder_);
    nlohmann::json manifest = nlohmann::json::parse(std::ifstream{POS_MANIFEST_FILE});
    manifest["nodes"]["POS"]["prefixLength"] = at.prefix_length;
    manifest["serviceDiscovery"]["multicastAddress"] = at.group;
    manifest["serviceDiscovery"]["port"] = at.discovery_port;
    if (change) change(manifest);
    std::ofstream{folder_ / "manifest.json"} << manifest;
    started_ = Clock::now();
    child_.emplace(std::vector{program},
                   Child::Environment{{"POS_NODE_ADDRESS", at.application},
                                      {"POS_MANIFEST", folder_ / "manifest.json"},
                                      {"POS_STORAGE_DIR", folder_ / "storage"},
                                      {"POS_LOG_LEVEL", "off"}},
                   place);
  }
  ~Application() {
    child_.reset();
    std::filesystem::remove_all(folder_);
  }
  Application(const Application&) = delete;
  Application& operator=(const Application&) = delete;
  [[nodiscard]] pid_t pid() const { return child_->pid(); }
  [[nodiscard]] Clock::time_point started() const { return started_; }

 private:
  const std::filesystem::path folder_;
  Clock::time_point started_;
  std::optional<Child> child_;
};

}  // namespace bench
