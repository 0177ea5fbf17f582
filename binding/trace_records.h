/// The binding's trace records: each event of proxies and skeletons becomes one line of compact
/// JSON. Tools read these lines, so names and keys are fixed; docs/trace.md lists them.
#pragma once

#include <string>
#include <string_view>

#include "ara/log/common.h"
#include "ara/log/logger.h"
#include "mw/com/cpp_binding/trace.h"

namespace binding {

/// The destination of trace lines.
class Trace_logger {
 public:
  virtual ~Trace_logger() = default;
  [[nodiscard]] virtual bool is_enabled(ara::log::LogLevel level) const = 0;
  virtual void log(ara::log::LogLevel level, std::string_view text) = 0;
  /// The log context behind it, if there is exactly one.
  [[nodiscard]] virtual const ara::log::Logger* context() const { return nullptr; }
};

/// Writes trace lines to one context of the platform log.
class Platform_trace_logger final : public Trace_logger {
 public:
  explicit Platform_trace_logger(ara::log::Logger& logger) : logger_{logger} {}
  [[nodiscard]] bool is_enabled(ara::log::LogLevel level) const override;
  void log(ara::log::LogLevel level, std::string_view text) override;
  [[nodiscard]] const ara::log::Logger* context() const override { return &logger_; }

 private:
  ara::log::Logger& logger_;
};

[[nodiscard]] std::string_view name_of(mw::com::cpp_binding::Trace_id id);

/// The record as text. Throws if it cannot be built (a text that is not valid UTF-8).
[[nodiscard]] std::string to_json(const mw::com::cpp_binding::Trace_event& event);

/// The trace sink, installed during its life; one at a time.
class Trace_records final : public mw::com::cpp_binding::Trace_sink {
 public:
  /// `logger` must outlive this object.
  explicit Trace_records(Trace_logger& logger);
  ~Trace_records() override;
  Trace_records(const Trace_records&) = delete;
  Trace_records& operator=(const Trace_records&) = delete;

  [[nodiscard]] bool is_enabled(mw::com::cpp_binding::Trace_id id) const noexcept override;
  /// Writes a record; one that cannot be built becomes an empty text. Never throws.
  void write(const mw::com::cpp_binding::Trace_event& event) noexcept override;

 private:
  Trace_logger& logger_;
};

}  // namespace binding
