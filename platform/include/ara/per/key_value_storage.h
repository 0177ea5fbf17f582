/// Values that outlive the process, one small store per port.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "ara/per/exceptions.h"
#include "ara/per/kvs_type.h"

namespace ara::per {

/// Reads and writes work on a copy in memory; SyncToStorage makes it last. Any thread may call; a
/// SyncToStorage stores the values of one moment.
class KeyValueStorageBase {
 public:
  virtual ~KeyValueStorageBase() = default;
  KeyValueStorageBase(const KeyValueStorageBase&) = delete;
  KeyValueStorageBase& operator=(const KeyValueStorageBase&) = delete;

  [[nodiscard]] virtual bool HasKey(const std::string& key) const = 0;
  /// A missing key gives a value without content, status kNotFound.
  [[nodiscard]] virtual KvsType GetValue(const std::string& key) const = 0;
  /// Creates or replaces. Throws ExceptionLogicError for an empty key, for a `value` without
  /// content and for a key or text that is not UTF-8.
  virtual void SetValue(const std::string& key, const KvsType& value) = 0;
  /// No effect when the key is missing.
  virtual void RemoveKey(const std::string& key) = 0;
  /// In alphabetical order.
  [[nodiscard]] virtual std::vector<std::string> GetAllKeys() const = 0;
  /// Replaces the stored values by those in memory, all or nothing, also when power fails
  /// meanwhile; returns when they are on the medium, at once when nothing has changed. Throws
  /// ExceptionPhysicalStorageError, also when there is more than a store can hold (16 MiB of text):
  /// the stored values are then still the old or already the new ones, those in memory are kept and
  /// the next call tries again.
  virtual void SyncToStorage() = 0;

 protected:
  KeyValueStorageBase() = default;
};

/// The store of a port: the file <folder>/<port>.json. The folder is $POS_STORAGE_DIR, else
/// $STATE_DIRECTORY (set by systemd), else $XDG_STATE_HOME/pos, else ~/.local/state/pos. One
/// process at a time uses a store.
///
/// While there is no such file, the first values come from initdata-<port>.json in
/// $POS_INITDATA_DIR, else in ../share/pos beside the program's folder; without that the store is
/// empty. They are first written by SyncToStorage.
class KeyValueStorage : public KeyValueStorageBase {
 public:
  /// Throws
  ///   ExceptionStorageLocationNotFound
  ///     when the folder is missing; it has then been created, so that a second attempt finds it,
  ///     unless that failed too (the text says which);
  ///   ExceptionValidation
  ///     with file, line and column (syntax) or key (types and values) for a file that is not a
  ///     store; it is left as it is;
  ///   ExceptionPhysicalStorageError
  ///     with path and reason when the file cannot be read;
  ///   ExceptionLogicError
  ///     when `port` is no file name.
  explicit KeyValueStorage(std::string_view port);
  ~KeyValueStorage() override;

  [[nodiscard]] bool HasKey(const std::string& key) const override;
  [[nodiscard]] KvsType GetValue(const std::string& key) const override;
  void SetValue(const std::string& key, const KvsType& value) override;
  void RemoveKey(const std::string& key) override;
  [[nodiscard]] std::vector<std::string> GetAllKeys() const override;
  void SyncToStorage() override;

 private:
  class Store;
  std::unique_ptr<Store> store_;
};

}  // namespace ara::per
