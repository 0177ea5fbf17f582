/// What a Capture has seen so far.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string_view>
#include <vector>

#include "ara/log/capture.h"
#include "platform/linux/log/arguments.h"

namespace ara::log {

struct Capture::Store {
  void Add(LogLevel level, std::string_view context, Arguments arguments);

  std::mutex mutex;  ///< guards records
  std::condition_variable added;
  std::vector<Record> records;
};

}  // namespace ara::log
