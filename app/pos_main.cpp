#include "app/pos_main.h"

#include <chrono>
#include <cstdio>
#include <exception>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "app/application_instance.h"
#include "app/build_info.h"
#include "app/posApplication.h"
#include "app/signal_thread.h"
#include "ara/log/logger.h"
#include "binding/trace_records.h"
#include "clients/GNSS.h"
#include "clients/Time.h"
#include "diagnosisService/data_identifiers.h"
#include "mw/com/runtime.h"
#include "persistency/Persistency.h"
#include "posService/Positioning.h"

namespace {

constexpr int exit_unhandled_exception = 104;
constexpr int exit_usage = 2;
/// Time for messages still under way to leave before the middleware ends.
constexpr std::chrono::seconds runtime_delay{1};

/// A shared pointer that two threads may read and replace. Shared, so that a signal being handled
/// keeps the application alive. A mutex instead of std::atomic<std::shared_ptr>: the one of
/// libstdc++ 12 gives its lock bit back without a release when it is read, which the thread
/// sanitizer reports.
class Application_pointer {
 public:
  [[nodiscard]] std::shared_ptr<posApplication> load() {
    const std::lock_guard lock(mutex_);
    return pointer_;
  }
  void exchange(std::shared_ptr<posApplication>& other) {
    const std::lock_guard lock(mutex_);
    pointer_.swap(other);
  }

 private:
  std::mutex mutex_;  ///< guards pointer_
  std::shared_ptr<posApplication> pointer_;
};

/// The application, for the signal handler; empty before its construction and once its destruction
/// begins.
Application_pointer application;

void handle_signal(int sigId) {
  if (const auto reached = application.load()) reached->signalHandler(sigId);
}

/// Owns the application and makes it reachable for signals.
class Application_owner {
 public:
  explicit Application_owner(Persistency persistency) {
    auto destroyed = std::make_shared<std::promise<void>>();
    destroyed_ = destroyed->get_future();
    std::shared_ptr<posApplication> made(new posApplication(std::move(persistency)),
                                         [destroyed](posApplication* pointer) {
                                           delete pointer;
                                           destroyed->set_value();
                                         });
    application_ = made.get();
    application.exchange(made);
  }
  /// Returns when the application is destroyed. A signal being handled delays that.
  ~Application_owner() {
    {
      std::shared_ptr<posApplication> last;
      application.exchange(last);
    }
    destroyed_.wait();
  }
  Application_owner(const Application_owner&) = delete;
  Application_owner& operator=(const Application_owner&) = delete;

  posApplication* operator->() const { return application_; }

 private:
  std::future<void> destroyed_;
  posApplication* application_ = nullptr;
};

void log_banner() {
  using ara::log::LogInfo;
  namespace diag = lumo::services::diag;
  LogInfo() << "POS application started. Version" << build_info::version << "build time"
            << build_info::build_time << "talvik version used:" << build_info::middleware_release;
  LogInfo() << "Used DFL version" << build_info::dfl_version;
  LogInfo() << "Used DM-Extensions version" << build_info::dm_extensions_version;
  const auto log_interface = []<class Interface>(Interface, std::string_view role) {
    LogInfo() << std::string(role) + " interface: " +
                     std::string(mw::com::cpp_binding::short_name(Interface::name)) + ". Version"
              << "v" + std::to_string(Interface::version.major) + "." +
                     std::to_string(Interface::version.minor);
  };
  log_interface(lumo::services::gnss::GNSS{}, "Required");
  log_interface(lumo::services::time::Time{}, "Required");
  log_interface(lumo::services::positioning::Positioning{}, "Provided");
  const auto log_identifier = []<class Interface>() {
    LogInfo() << "Provided interface diagnosis: " +
                     std::string(diag::identifier_of(Interface::name)) + " (" +
                     std::string(mw::com::cpp_binding::short_name(Interface::name)) + ").";
  };
  diag::for_each_interface<diag::Fault_identifiers>(log_identifier);
  diag::for_each_interface<diag::Status_identifiers>(log_identifier);
  LogInfo() << "Provided interface DiagnosticMonitor. Version from talvik"
            << build_info::middleware_release;
}

constexpr const char* help =
    "Usage: POS__ORVEL1_Sys_Adaptive_01_Exe [--help | --version]\n"
    "\n"
    "The positioning application. It takes the positions of the GNSS service and provides the\n"
    "Positioning service. Without an argument it runs until SIGTERM or SIGINT.\n"
    "\n"
    "The environment configures it: POS_MANIFEST names the deployment manifest, POS_STORAGE_DIR\n"
    "the folder of its settings, POS_LOG_LEVEL the levels of its log.\n"
    "posctl status shows its state.\n";

/// Returns the exit code. Nothing else of the application starts.
int answer_to_arguments(int argc, char** argv) {
  const std::string_view argument = argv[1];
  if (argc == 2 && (argument == "--help" || argument == "-h" || argument == "--version")) {
    const std::string text = argument == "--version"
                                 ? "POS application " + std::string(build_info::version) + "\n"
                                 : help;
    const bool written = std::fputs(text.c_str(), stdout) >= 0 && std::fflush(stdout) == 0;
    return written ? 0 : 1;
  }
  std::fprintf(stderr, "%s: the argument \"%s\" is not known, --help and --version are\n", argv[0],
               argc > 2 && (argument == "--help" || argument == "--version") ? argv[2] : argv[1]);
  return exit_usage;
}

int exit_after(const char* exception) {
  ara::log::LogError() << "Fatal error in application, not handled exception caught: " << exception
                       << " Exiting application with return value " << exit_unhandled_exception
                       << ".";
  return exit_unhandled_exception;
}

}  // namespace

int pos_main(int argc, char** argv) {
  if (argc > 1) return answer_to_arguments(argc, argv);
  // Before logging, which starts threads of its own: only one thread may receive the signals.
  Signal_thread::block_signals();
  // Outlives every object that a signal could reach or end.
  std::optional<Signal_thread> signal_thread;
  int exit_code = 0;
  try {
    ara::log::InitLogging("POS", "POS application", ara::log::LogLevel::kInfo,
                          ara::log::LogMode::kRemote, "");
    log_banner();
    // Before the runtime, which must not outlive the destination of its trace.
    binding::Platform_trace_logger trace_logger(ara::log::CreateLogger("TRCE", "Binding trace"));
    const binding::Trace_records trace_records(trace_logger);
    auto runtime = std::make_unique<mw::com::runtime::Component_singleton>("", false);
    signal_thread.emplace(handle_signal);
    Persistency persistency(settings_port, ara::log::CreateLogger("DBAC", "Persistency access"));
    auto owner = std::make_unique<Application_owner>(std::move(persistency));
    exit_code = (*owner)->run();

    ara::log::LogInfo() << "destroying app.";
    owner.reset();
    ara::log::LogInfo() << "delay before destroying runtime.";
    std::this_thread::sleep_for(runtime_delay);
    ara::log::LogInfo() << "destroying runtime.";
    runtime.reset();
  } catch (const std::exception& error) {
    return exit_after(error.what());
  } catch (...) {
    return exit_after("unknown exception");
  }
  ara::log::LogInfo() << "exiting main.";
  if (exit_code != 0) {
    ara::log::LogError() << "Close POS application with return code " << exit_code << ".";
  }
  return exit_code;
}
