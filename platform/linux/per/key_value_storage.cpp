#include "ara/per/key_value_storage.h"

#include <cstdint>
#include <mutex>
#include <utility>

#include "platform/linux/per/json_text.h"
#include "platform/linux/per/location.h"
#include "platform/linux/per/stored_values.h"

namespace ara::per {
namespace {

std::string checked_port(std::string_view port) {
  constexpr std::size_t max_length = 128;
  if (port.empty() || port.size() > max_length || port.front() == '.' ||
      port.find_first_of(std::string_view("/\0", 2)) != std::string_view::npos) {
    throw ExceptionLogicError(
        "storage port \"" + std::string(port.substr(0, max_length)) +
        "\": expected a file name of 1 to 128 characters that does not start with a dot");
  }
  return std::string(port);
}

Store_file ready_file(const std::string& port) {
  require_folder(storage_folder());
  return file_of_store(port);
}

}  // namespace

class KeyValueStorage::Store {
 public:
  explicit Store(const std::string& port) : file_(ready_file(port)) {
    auto stored = stored_values(file_, port);
    values_ = std::move(stored.values);
    if (stored.origin == Stored_values::Origin::first_values) changes_ = 1;
    file_.remove_leftover();
  }

  bool has(const std::string& key) const {
    const std::lock_guard lock(mutex_);
    return values_.contains(key);
  }

  KvsType get(const std::string& key) const {
    const std::lock_guard lock(mutex_);
    const auto found = values_.find(key);
    return found != values_.end() ? found->second : KvsType(KvsType::Status::kNotFound);
  }

  void set(const std::string& key, const KvsType& value) {
    const std::lock_guard lock(mutex_);
    values_.insert_or_assign(key, value);
    ++changes_;
  }

  void remove(const std::string& key) {
    const std::lock_guard lock(mutex_);
    if (values_.erase(key) != 0) ++changes_;
  }

  std::vector<std::string> keys() const {
    const std::lock_guard lock(mutex_);
    std::vector<std::string> keys;
    keys.reserve(values_.size());
    for (const auto& [key, value] : values_)
      keys.push_back(key);
    return keys;
  }

  void sync() {
    const std::lock_guard writing(write_mutex_);
    std::string text;
    std::uint64_t changes = 0;
    {
      const std::lock_guard lock(mutex_);
      if (changes_ == stored_changes_) return;
      changes = changes_;
      text = to_text(values_);
    }
    file_.replace(text);
    stored_changes_ = changes;
  }

 private:
  const Store_file file_;
  std::mutex write_mutex_;  ///< one writer at a time; guards stored_changes_, taken before mutex_
  std::uint64_t stored_changes_ = 0;  ///< the value of changes_ for the file's content
  mutable std::mutex mutex_;          ///< guards the members below, never held while writing
  Values values_;
  std::uint64_t changes_ = 0;
};

KeyValueStorage::KeyValueStorage(std::string_view port)
    : store_(std::make_unique<Store>(checked_port(port))) {}
KeyValueStorage::~KeyValueStorage() = default;

bool KeyValueStorage::HasKey(const std::string& key) const {
  return store_->has(key);
}
KvsType KeyValueStorage::GetValue(const std::string& key) const {
  return store_->get(key);
}

void KeyValueStorage::SetValue(const std::string& key, const KvsType& value) {
  if (key.empty()) throw ExceptionLogicError("storage: a value needs a key");
  if (!is_utf8(key)) throw ExceptionLogicError("storage: a key is not UTF-8");
  if (value.GetType() == KvsType::Type::kNotSupported) {
    throw ExceptionLogicError("storage: key \"" + key + "\" cannot be set to nothing");
  }
  if (value.GetType() == KvsType::Type::kString && !is_utf8(value.GetString())) {
    throw ExceptionLogicError("storage: the text for key \"" + key + "\" is not UTF-8");
  }
  store_->set(key, value);
}

void KeyValueStorage::RemoveKey(const std::string& key) {
  store_->remove(key);
}
std::vector<std::string> KeyValueStorage::GetAllKeys() const {
  return store_->keys();
}
void KeyValueStorage::SyncToStorage() {
  store_->sync();
}

}  // namespace ara::per
