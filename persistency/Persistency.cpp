#include "persistency/Persistency.h"

#include <cstddef>
#include <exception>
#include <stdexcept>
#include <utility>

using ara::per::KvsType;

namespace {

/// No storage holds more. A larger size entry is damaged and must not cause an allocation.
constexpr std::uint64_t max_blob_bytes = std::uint64_t{16} << 20;

}  // namespace

Persistency::KVSGateway::KVSGateway(std::string_view port, ara::log::Logger& logger)
    : logger_(logger) {
  try {
    storage_ = std::make_unique<ara::per::KeyValueStorage>(port);
    return;
  } catch (const ara::per::ExceptionStorageLocationNotFound&) {
    logger_.LogInfo() << "exception: ExceptionStorageLocationNotFound calling KeyValueStorage "
                         "constructor again.";
  } catch (const std::exception& error) {
    logger_.LogInfo() << error.what();
    logger_.LogInfo() << "##### Warning: KeyValueStorage constructor threw an exception - file "
                         "syntax could be incorrect.initdata-Key_Value_Port.json file should be "
                         "fixed, default values set in app logic will be used. #####";
    return;
  }
  storage_ = std::make_unique<ara::per::KeyValueStorage>(port);
}

KvsType Persistency::KVSGateway::getValue(const std::string& key) const noexcept {
  if (table_) {
    const auto entry = table_->find(key);
    if (entry == table_->end()) return {};
    try {
      return std::visit([](const auto& value) { return KvsType(value); }, entry->second);
    } catch (const std::bad_variant_access& error) {
      logger_.LogInfo() << "No such type under " + key + "\n\t" + error.what();
      return {};
    }
  }
  return storage_ ? storage_->GetValue(key) : KvsType();
}

void Persistency::KVSGateway::setValue(const std::string& key, const KvsType& value) {
  if (table_) {
    const auto entry = table_->find(key);
    if (entry == table_->end()) throw ara::per::ExceptionLogicError("No such entry");
    entry->second = to_table_value(value);
  } else if (storage_) {
    storage_->SetValue(key, value);
  }
}

Persistency::KVSGateway::Table_value Persistency::KVSGateway::to_table_value(const KvsType& value) {
  switch (value.GetType()) {
    case KvsType::Type::kBoolean:
      return value.GetBool();
    case KvsType::Type::kUInt8:
      return static_cast<std::uint8_t>(value.GetUInt());
    case KvsType::Type::kUInt16:
      return static_cast<std::uint16_t>(value.GetUInt());
    case KvsType::Type::kUInt32:
      return value.GetUInt();
    case KvsType::Type::kUInt64:
      return value.GetUInt64();
    case KvsType::Type::kString:
      return value.GetString();
    case KvsType::Type::kDouble:
      return value.GetDouble();
    case KvsType::Type::kBinary:
      return value.GetBinary();
    case KvsType::Type::kNotSupported:
    case KvsType::Type::kFloat:
    case KvsType::Type::kSInt8:
    case KvsType::Type::kSInt16:
    case KvsType::Type::kSInt32:
    case KvsType::Type::kSInt64:
      break;
  }
  throw std::out_of_range("Not supported KVS type");
}

bool Persistency::KVSGateway::hasKey(const std::string& key) const {
  if (table_) return table_->count(key) != 0;
  return storage_ && storage_->HasKey(key);
}

void Persistency::KVSGateway::removeKey(const std::string& key) {
  if (table_) {
    table_->erase(key);
  } else if (storage_) {
    storage_->RemoveKey(key);
  }
}

void Persistency::KVSGateway::sync() {
  if (!table_ && storage_) storage_->SyncToStorage();
}

bool Persistency::KVSGateway::isStorageUsable() const noexcept {
  if (!storage_) return false;
  try {
    static_cast<void>(storage_->GetAllKeys());
    return true;
  } catch (...) {
    return false;
  }
}

void Persistency::KVSGateway::fill_table() {
  auto table = std::make_unique<Table>();
  if (storage_) {
    for (const std::string& key : storage_->GetAllKeys()) {
      try {
        table->emplace(key, to_table_value(storage_->GetValue(key)));
      } catch (const std::out_of_range& error) {
        logger_.LogInfo() << "Left out of the table: " + key + "\n\t" + error.what();
      }
    }
  }
  table_ = std::move(table);
}

Persistency::Persistency(std::string_view port, ara::log::Logger& logger)
    : logger_(logger), gateway_(port, logger) {}

void Persistency::setStoringAllowed(bool allowed) {
  logger_.LogInfo() << "Database: storing" << (allowed ? "allowed" : "forbidden");
  storing_allowed_ = allowed;
}

void Persistency::setCallback(std::function<void()> callback) {
  // The old callback is destroyed with the argument, after the new one is in place.
  callback_.swap(callback);
}

void Persistency::remove(const std::string& key) {
  if (!storing_allowed_) {
    logger_.LogInfo() << "Modifications not allowed. Tried to remove key " + key;
    return;
  }
  logger_.LogInfo() << "Remove " + key;
  gateway_.removeKey(key);
  // A storage that no longer works throws here and not at a later read.
  static_cast<void>(gateway_.hasKey(key));
}

bool Persistency::controlledSaveBinaryData(const std::vector<std::uint8_t>& data,
                                           const std::string& key) {
  const bool saved = save_binary_data(data, key);
  if (saved && callback_) callback_();
  return saved;
}

bool Persistency::save_binary_data(const std::vector<std::uint8_t>& data, const std::string& key) {
  logger_.LogInfo() << key + ", controlledSaveBinaryData will store " +
                           std::to_string(data.size()) + " bytes";
  if (!storing_allowed_) {
    logger_.LogInfo() << "Modifications not allowed. Tried to controlledSaveBinaryData with key " +
                             key;
    return false;
  }
  const std::string before = key + "beforeRW";
  const std::string after = key + "afterRW";
  const KvsType size(std::uint64_t{data.size()});
  try {
    write_entry(before, size);
    write_entry(key, KvsType(data.data(), data.size()));
    write_entry(after, size);
    return true;
  } catch (const std::exception& error) {
    logger_.LogError() << std::string("Unable to store to DB: ") + error.what();
  }
  logger_.LogInfo() << "controlledSaveBinaryData failed";
  for (const std::string& entry : {before, key, after})
    remove(entry);
  try {
    gateway_.sync();
  } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch)
    // The cause of the failed save may also prevent this, and has already been logged. The next
    // successful sync removes the entries from the disk.
  }
  return false;
}

void Persistency::write_entry(const std::string& key, const KvsType& value) {
  if (!storing_allowed_) {
    logger_.LogInfo() << "Modifications not allowed. Tried to set value for key " + key;
    throw std::runtime_error(key + ": storing became forbidden during the save");
  }
  gateway_.setValue(key, value);
  // Reads back, because without a storage a write has no effect and no error.
  if (gateway_.getValue(key).GetStatus() != KvsType::Status::kSuccess) {
    throw std::runtime_error(key + ": the storage did not take the value");
  }
  gateway_.sync();
}

/// `extract` takes the value and returns its text for the log. If it throws, the entry is
/// unreadable.
template <typename Extract>
bool Persistency::read_entry(const std::string& key, KvsType::Type type, Extract extract) const {
  const KvsType value = gateway_.getValue(key);
  if (value.GetStatus() != KvsType::Status::kSuccess || value.GetType() != type) {
    logger_.LogInfo() << "No such entry for " + key;
    return false;
  }
  try {
    const std::string text = extract(value);  // first: an open log line is sent even if this throws
    logger_.LogInfo() << "Got entry " + key + "=" + text;
    return true;
  } catch (const std::exception& error) {
    logger_.LogInfo() << "Unable to extract value for key " + key + error.what();
    return false;
  }
}

boost::optional<std::uint64_t> Persistency::read_size(const std::string& key) const {
  boost::optional<std::uint64_t> size;
  static_cast<void>(read_entry(key, KvsType::Type::kUInt64, [&](const KvsType& value) {
    size = value.GetUInt64();
    return std::to_string(*size);
  }));
  return size;
}

boost::optional<std::vector<std::uint8_t>> Persistency::controlledReadBinaryData(
    const std::string& key) const {
  const auto before = read_size(key + "beforeRW");
  const auto after = read_size(key + "afterRW");
  if (!before && !after) {
    logger_.LogInfo() << "controlledReadBinaryData no data size " + key;
    return boost::none;
  }

  std::vector<std::uint8_t> data;
  const auto extract = [&](const KvsType& value) {
    if (*after > max_blob_bytes) throw std::length_error("size is " + std::to_string(*after));
    data.resize(static_cast<std::size_t>(*after));
    return std::to_string(value.GetBinary(data.data(), data.size())) + " bytes";
  };
  if (before == after && read_entry(key, KvsType::Type::kBinary, extract)) {
    logger_.LogInfo() << "controlledReadBinaryData loaded " + std::to_string(data.size()) +
                             " bytes";
    return data;
  }
  const std::string size = std::to_string(after.value_or(0));
  logger_.LogInfo() << "controlledReadBinaryData failed to load " + key +
                           " size beforeRW: " + size + " size afterRW: " + size;
  return boost::none;
}
