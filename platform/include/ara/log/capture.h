/// For tests: the log of this process as values.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "ara/log/common.h"

namespace ara::log {

/// While it lives, every message whose level is enabled ends here and nowhere else, from any
/// thread. One at a time: a second one throws std::logic_error.
class Capture {
 public:
  struct Record {
    LogLevel level;
    std::string context;
    std::vector<std::string> arguments;  ///< each argument as its text, in order, never split

    /// The arguments joined by one blank, as DLT receivers and standard error show them.
    [[nodiscard]] std::string Text() const;
  };

  Capture();
  ~Capture();
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;

  /// Everything so far, oldest first.
  [[nodiscard]] std::vector<Record> Records() const;
  /// The joined texts so far, of one context or (empty) of all.
  [[nodiscard]] std::vector<std::string> Texts(std::string_view context = {}) const;
  /// Whether a message with exactly this joined text is there.
  [[nodiscard]] bool Has(std::string_view text) const;
  /// Waits until a message fulfils `condition`; false when none did within `limit`.
  [[nodiscard]] bool WaitFor(const std::function<bool(const Record&)>& condition,
                             std::chrono::milliseconds limit = std::chrono::seconds(5)) const;
  /// Waits for a message with exactly this joined text.
  [[nodiscard]] bool WaitFor(std::string_view text,
                             std::chrono::milliseconds limit = std::chrono::seconds(5)) const;
  void Clear();

  struct Store;  // platform/linux/log

 private:
  std::shared_ptr<Store> store_;  ///< shared with a thread that is logging while the capture ends
};

}  // namespace ara::log
