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
/// No lock of its own: callers serialise their access. Reads never throw: what is missing or of
/// another type is logged and comes back empty.
class Persistency {
 public:
  /// The storage of one port or, after fillTable(), a table in memory in its place.
  class KVSGateway {
   public:
    /// Opens the storage. While its folder is missing it is tried a second time; that attempt's
    /// exception leaves the constructor. After any other std::exception the gateway works without
    /// a storage: nothing is read, writes do nothing.
    KVSGateway(std::string_view port, ara::log::Logger& logger);

    /// An empty value for a key that is missing. A storage that throws here ends the process.
    [[nodiscard]] ara::per::KvsType getValue(const std::string& key) const noexcept;

    /// In the table only what is there already can be written: throws ara::per::ExceptionLogicError
    /// for an unknown key and std::out_of_range for a type that the table cannot hold. The storage
    /// throws what KeyValueStorageBase::SetValue promises.
    void setValue(const std::string& key, const ara::per::KvsType& value);

    [[nodiscard]] bool hasKey(const std::string& key) const;
    void removeKey(const std::string& key);

    /// Makes what was written to the storage last; throws ara::per::ExceptionPhysicalStorageError.
    void sync();

    /// Whether there is a storage that answers.
    [[nodiscard]] bool isStorageUsable() const noexcept;

    /// Copies all entries of the storage into the table, which takes the storage's place from now
    /// on: nothing that is written later outlives the process. For owners that may change settings
    /// only on trial; the application itself works on the storage. Entries of a type that the table
    /// cannot hold are left out and logged. Called again, starts over from the storage.
    void fillTable();

   private:
    /// The alternative held is the type of the entry.
    using TableValue = std::variant<bool,
                                    std::uint8_t,
                                    std::uint16_t,
                                    std::uint32_t,
                                    std::uint64_t,
                                    double,
                                    std::string,
                                    std::vector<std::uint8_t>>;
    using Table = std::map<std::string, TableValue>;

    static TableValue toTableValue(const ara::per::KvsType& value);

    std::unique_ptr<ara::per::KeyValueStorage> storage_;  ///< empty: could not be opened
    std::unique_ptr<Table> table_;                        ///< empty: work on the storage
    ara::log::Logger& logger_;
    std::function<void()> hook_ = [] {};  ///< called by nobody; an owner's place in the gateway
  };

  Persistency(std::string_view port, ara::log::Logger& logger);

  [[nodiscard]] ara::per::KvsType getValue(const std::string& key) const noexcept {
    return gateway_.getValue(key);
  }
  [[nodiscard]] KVSGateway& gateway() { return gateway_; }
  /// The context of everything that concerns stored settings.
  [[nodiscard]] ara::log::Logger& logger() const { return logger_; }

  void setStoringAllowed(bool allowed);
  [[nodiscard]] bool isStoringAllowed() const { return storingAllowed_; }

  /// The owner callback is called after each controlled save that succeeded, on the saving thread.
  /// It must not replace itself.
  void setCallback(std::function<void()> callback);

  /// Does nothing but log while storing is forbidden.
  void remove(const std::string& key);

  /// Stores `data` under `key`, between its size under `key` + "beforeRW" and again under
  /// `key` + "afterRW", each made to last before the next is written. False, and none of the three
  /// entries left, when that failed or the storage did not take the values (a disk that takes
  /// nothing any more may keep them until the next sync); false, and nothing changed, while storing
  /// is forbidden.
  [[nodiscard]] bool controlledSaveBinaryData(const std::vector<std::uint8_t>& data,
                                              const std::string& key);

  /// Nothing when the entries are missing or the two sizes differ. A blob shorter than its size is
  /// filled up with zeros, a longer one is refused.
  [[nodiscard]] boost::optional<std::vector<std::uint8_t>> controlledReadBinaryData(
      const std::string& key) const;

 private:
  [[nodiscard]] bool saveBinaryData(const std::vector<std::uint8_t>& data, const std::string& key);
  void writeEntry(const std::string& key, const ara::per::KvsType& value);
  template <typename Extract>
  [[nodiscard]] bool readEntry(const std::string& key,
                               ara::per::KvsType::Type type,
                               Extract extract) const;
  [[nodiscard]] boost::optional<std::uint64_t> readSize(const std::string& key) const;

  ara::log::Logger& logger_;
  KVSGateway gateway_;
  bool storingAllowed_ = true;
  std::function<void()> callback_;
};
