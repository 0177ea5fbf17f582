#include "ara/log/capture.h"

#include <algorithm>
#include <utility>

#include "platform/linux/log/backend.h"
#include "platform/linux/log/capture_store.h"

namespace ara::log {

std::string Capture::Record::Text() const {
  std::string text;
  for (const std::string& argument : arguments) {
    if (&argument != &arguments.front()) text += ' ';
    text += argument;
  }
  return text;
}

void Capture::Store::Add(LogLevel level, std::string_view context, Arguments arguments) {
  Record record{level, std::string(context), {}};
  while (!arguments.empty())
    arguments.Next().AppendText(record.arguments.emplace_back());
  {
    const std::lock_guard lock(mutex);
    records.push_back(std::move(record));
  }
  added.notify_all();
}

Capture::Capture() : store_(std::make_shared<Store>()) {
  Backend::Instance().SetCapture(store_);
}

Capture::~Capture() {
  Backend::Instance().SetCapture(nullptr);
}

std::vector<Capture::Record> Capture::Records() const {
  const std::lock_guard lock(store_->mutex);
  return store_->records;
}

std::vector<std::string> Capture::Texts(std::string_view context) const {
  std::vector<std::string> texts;
  for (const Record& record : Records()) {
    if (context.empty() || record.context == context) texts.push_back(record.Text());
  }
  return texts;
}

bool Capture::Has(std::string_view text) const {
  return WaitFor(text, std::chrono::milliseconds::zero());
}

bool Capture::WaitFor(const std::function<bool(const Record&)>& condition,
                      std::chrono::milliseconds limit) const {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  std::size_t checked = 0;
  std::unique_lock lock(store_->mutex);
  for (;;) {
    for (checked = std::min(checked, store_->records.size()); checked < store_->records.size();
         ++checked) {
      if (condition(store_->records[checked])) return true;
    }
    if (store_->added.wait_until(lock, deadline) == std::cv_status::timeout &&
        checked >= store_->records.size()) {
      return false;
    }
  }
}

bool Capture::WaitFor(std::string_view text, std::chrono::milliseconds limit) const {
  return WaitFor([text](const Record& record) { return record.Text() == text; }, limit);
}

void Capture::Clear() {
  const std::lock_guard lock(store_->mutex);
  store_->records.clear();
}

}  // namespace ara::log
