/// The application's only access to settings that outlive the process.
#pragma once

#include <boost/optional.hpp>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "ara/log/logger.h"
#include "ara/per/key_value_storage.h"
#include "ara/per/kvs_type.h"

/// A key-value storage with a switch that forbids modifications, and binary blobs whose interrupted
/// writes are recognised.
///
/// It has no lock of its own: callers serialise their access. Reads never throw: a missing entry or
/// one of another type is logged and returned empty.
class Persistency {
 public:
  /// The storage of one port or, after fill_table(), a table in memory that replaces it.
  class KVSGateway {
   public:
    /// Opens the storage. If its folder is missing, tries a second time; that attempt's exception
    /// leaves the constructor. After any other std::exception the gateway works without a storage:
    /// nothing is read, writes do nothing.
    KVSGateway(std::string_view port, ara::log::Logger& logger);

    /// Returns an empty value for a missing key. An exception of the storage ends the process.
    [[nodiscard]] ara::per::KvsType getValue(const std::string& key) const noexcept;

    /// With the table, only existing keys can be written: throws ara::per::ExceptionLogicError for
    /// an unknown key and std::out_of_range for a type that the table cannot hold. The storage
    /// throws the exceptions of KeyValueStorageBase::SetValue.
    void setValue(const std::string& key, const ara::per::KvsType& value);

    [[nodiscard]] bool hasKey(const std::string& key) const;
    void removeKey(const std::string& key);

    /// Makes the writes to the storage permanent. Throws ara::per::ExceptionPhysicalStorageError.
    void sync();

    /// True if there is a storage that answers.
    [[nodiscard]] bool isStorageUsable() const noexcept;

    /// Copies all entries of the storage into the table, which replaces the storage from now on: no
    /// later write outlives the process. For owners that may change settings only on trial; the
    /// application itself works on the storage. Entries of a type that the table cannot hold are
    /// skipped and logged. A further call starts over from the storage.
    void fill_table();

   private:
    /// The alternative is the type of the entry.
    using Table_value = std::variant<bool,
                                     std::uint8_t,
                                     std::uint16_t,
                                     std::uint32_t,
                                     std::uint64_t,
                                     double,
                                     std::string,
                                     std::vector<std::uint8_t>>;
    using Table = std::map<std::string, Table_value>;

    static Table_value to_table_value(const ara::per::KvsType& value);

    std::unique_ptr<ara::per::KeyValueStorage> storage_;  ///< empty: opening it failed
    std::unique_ptr<Table> table_;                        ///< empty: the gateway uses the storage
    ara::log::Logger& logger_;
    std::function<void()> hook_ = [] {};  ///< never called; an owner's place in the gateway
  };

  Persistency(std::string_view port, ara::log::Logger& logger);

  [[nodiscard]] ara::per::KvsType getValue(const std::string& key) const noexcept {
    return gateway_.getValue(key);
  }
  [[nodiscard]] KVSGateway& gateway() { return gateway_; }
  /// The context for all log lines on stored settings.
  [[nodiscard]] ara::log::Logger& logger() const { return logger_; }

  void setStoringAllowed(bool allowed);
  [[nodiscard]] bool isStoringAllowed() const { return storing_allowed_; }

  /// The owner callback is called after each successful controlled save, on the saving thread. It
  /// must not replace itself.
  void setCallback(std::function<void()> callback);

  /// While storing is forbidden, only logs.
  void remove(const std::string& key);

  /// Stores `data` under `key`, between its size under `key` + "beforeRW" and again under `key` +
  /// "afterRW". Each is permanent before the next is written. Returns false and removes the three
  /// entries if that failed or the storage did not accept the values (a full disk may keep them
  /// until the next sync). Returns false and changes nothing while storing is forbidden.
  [[nodiscard]] bool controlledSaveBinaryData(const std::vector<std::uint8_t>& data,
                                              const std::string& key);

  /// Returns nothing if the entries are missing or the two sizes differ. A blob shorter than its
  /// size is filled up with zeros, a longer one is refused.
  [[nodiscard]] boost::optional<std::vector<std::uint8_t>> controlledReadBinaryData(
      const std::string& key) const;

 private:
  [[nodiscard]] bool save_binary_data(const std::vector<std::uint8_t>& data,
                                      const std::string& key);
  void write_entry(const std::string& key, const ara::per::KvsType& value);
  template <typename Extract>
  [[nodiscard]] bool read_entry(const std::string& key,
                                ara::per::KvsType::Type type,
                                Extract extract) const;
  [[nodiscard]] boost::optional<std::uint64_t> read_size(const std::string& key) const;

  ara::log::Logger& logger_;
  KVSGateway gateway_;
  bool storing_allowed_ = true;
  std::function<void()> callback_;
};
