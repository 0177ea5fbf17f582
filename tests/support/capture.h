/// The log of this process as values.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "ara/log/common.h"
#include "platform/linux/log/diversion.h"

namespace test {

/// While it lives, every message whose level is enabled ends here and nowhere else, from any
/// thread. One at a time: a second one throws std::logic_error.
class Capture {
 public:
  struct Record {
    ara::log::LogLevel level;
    std::string context;
    std::vector<std::string> arguments;  ///< each argument as its text, in order, never split

    /// The arguments joined by one blank, as DLT receivers and standard error show them.
    [[nodiscard]] std::string text() const {
      std::string text;
      for (const std::string& argument : arguments) {
        if (&argument != &arguments.front()) text += ' ';
        text += argument;
      }
      return text;
    }
  };

  Capture() {
    ara::log::divert(std::make_shared<ara::log::Diversion>(
        [store = store_](ara::log::LogLevel level, std::string_view context,
                         ara::log::Arguments arguments) {
          store->add(level, context, arguments);
        }));
  }
  ~Capture() { ara::log::divert(nullptr); }
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;

  /// Everything so far, oldest first.
  [[nodiscard]] std::vector<Record> records() const {
    const std::lock_guard lock(store_->mutex);
    return store_->records;
  }
  /// The joined texts so far, of one context or (empty) of all.
  [[nodiscard]] std::vector<std::string> texts(std::string_view context = {}) const {
    std::vector<std::string> texts;
    for (const Record& record : records()) {
      if (context.empty() || record.context == context) texts.push_back(record.text());
    }
    return texts;
  }
  /// Whether a message with exactly this joined text is there.
  [[nodiscard]] bool has(std::string_view text) const {
    return wait_for(text, std::chrono::milliseconds::zero());
  }
  /// Waits until a message fulfils `condition`; false when none did within `limit`.
  [[nodiscard]] bool wait_for(const std::function<bool(const Record&)>& condition,
                              std::chrono::milliseconds limit = std::chrono::seconds(30)) const {
    std::unique_lock lock(store_->mutex);
    return store_->added.wait_for(lock, limit,
                                  [&] { return std::ranges::any_of(store_->records, condition); });
  }
  /// Waits for a message with exactly this joined text.
  [[nodiscard]] bool wait_for(std::string_view text,
                              std::chrono::milliseconds limit = std::chrono::seconds(30)) const {
    return wait_for([text](const Record& record) { return record.text() == text; }, limit);
  }
  void clear() {
    const std::lock_guard lock(store_->mutex);
    store_->records.clear();
  }

  /// Called with each message once it is kept, on the thread that logs. To be set while nobody
  /// logs.
  void on_record(std::function<void(const Record&)> on_record) {
    store_->on_record = std::move(on_record);
  }

 private:
  struct Store {
    void add(ara::log::LogLevel level, std::string_view context, ara::log::Arguments arguments) {
      Record record{level, std::string(context), {}};
      while (!arguments.empty())
        arguments.next().append_text(record.arguments.emplace_back());
      {
        const std::lock_guard lock(mutex);
        records.push_back(record);
      }
      added.notify_all();
      if (on_record) on_record(record);
    }

    std::mutex mutex;  ///< guards records
    std::condition_variable added;
    std::vector<Record> records;
    std::function<void(const Record&)> on_record;
  };

  /// Shared with a thread that is logging while the capture ends.
  const std::shared_ptr<Store> store_ = std::make_shared<Store>();
};

}  // namespace test
