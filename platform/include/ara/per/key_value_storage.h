/// Values that outlive the process: one small store per port.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "ara/per/exceptions.h"
#include "ara/per/kvs_type.h"

namespace ara::per {

/// Reads and writes use a copy in memory; SyncToStorage makes it permanent. Any thread may call.
/// One SyncToStorage stores the values of one moment.
class KeyValueStorageBase {
 public:
  virtual ~KeyValueStorageBase() = default;
  KeyValueStorageBase(const KeyValueStorageBase&) = delete;
  KeyValueStorageBase& operator=(const KeyValueStorageBase&) = delete;

  [[nodiscard]] virtual bool HasKey(const std::string& key) const = 0;
  /// For a missing key, returns a value without content and with the status kNotFound.
  [[nodiscard]] virtual KvsType GetValue(const std::string& key) const = 0;
  /// Creates or replaces the value of `key`. Throws ExceptionLogicError for an empty key, for a
  /// `value` without content and for a key or text that is not UTF-8.
  virtual void SetValue(const std::string& key, const KvsType& value) = 0;
  /// Has no effect if the key is missing.
  virtual void RemoveKey(const std::string& key) = 0;
  /// The keys in alphabetical order.
  [[nodiscard]] virtual std::vector<std::string> GetAllKeys() const = 0;
  /// Replaces the stored values by those in memory: all or nothing, even if power fails meanwhile.
  /// Returns when the values are on the medium, or at once if nothing has changed. Throws
  /// ExceptionPhysicalStorageError, also for more than a store can hold (16 MiB of text). After
  /// that the store holds either the old or the new values; the values in memory are kept and the
  /// next call tries again.
  virtual void SyncToStorage() = 0;

 protected:
  KeyValueStorageBase() = default;
};

/// The store of a port: the file <folder>/<port>.json. In the application "pos" the folder is
/// $POS_STORAGE_DIR, else $STATE_DIRECTORY (set by systemd), else $XDG_STATE_HOME/pos, else
/// ~/.local/state/pos. Only one process at a time may use a store.
///
/// While this file does not exist, the first values are those of initdata-<port>.json in
/// $POS_INITDATA_DIR, else in /etc/pos, else in ../share/pos beside the program's folder, else the
/// store is empty.
/// SyncToStorage first writes them to the file.
class KeyValueStorage : public KeyValueStorageBase {
 public:
  /// Throws
  ///   ExceptionStorageLocationNotFound
  ///     if the folder is missing. The constructor has then created it, so that a second attempt
  ///     finds it, unless that failed too (the text says which);
  ///   ExceptionValidation
  ///     with file, line and column (syntax) or key (types and values) if the file is not a store;
  ///     the file stays as it is;
  ///   ExceptionPhysicalStorageError
  ///     with path and reason if the file cannot be read;
  ///   ExceptionLogicError
  ///     if `port` is not a file name.
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
