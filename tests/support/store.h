/// The key-value storage of the application, in a folder of the test's own.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "persistency/Persistency.h"
#include "tests/support/temporary_folder.h"

class Store {
 public:
  Store() {
    std::filesystem::create_directory(folder());
    setenv("POS_STORAGE_DIR", folder().c_str(), 1);
    unsetenv("POS_INITDATA_DIR");
  }

  [[nodiscard]] std::filesystem::path folder() const { return parent_ / "store"; }
  [[nodiscard]] std::filesystem::path file() const {
    return folder() / (std::string(port) + ".json");
  }
  /// What an earlier process has left.
  void write(const std::vector<std::pair<std::string, ara::per::KvsType>>& entries) {
    ara::per::KeyValueStorage storage(port);
    for (const auto& [key, value] : entries)
      storage.SetValue(key, value);
    storage.SyncToStorage();
  }
  [[nodiscard]] Persistency open() {
    return Persistency(port, ara::log::CreateLogger("DBAC", "Persistency access"));
  }

 private:
  static constexpr const char* port = "POS_Key_Value_Port";
  Temporary_folder parent_;
};
