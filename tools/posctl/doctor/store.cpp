#include "tools/posctl/doctor/store.h"

#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>

#include "platform/linux/per/location.h"

namespace posctl::doctor {

namespace {

constexpr const char* port = "POS_Key_Value_Port";

const nlohmann::json* entry_of(const nlohmann::json& store, const std::string& key) {
  if (!store.is_object()) return nullptr;
  const auto entry = store.find(key);
  if (entry == store.end() || !entry->is_object() || !entry->contains("value")) return nullptr;
  return (*entry)["value"].is_boolean() ? &(*entry)["value"] : nullptr;
}

}  // namespace

std::string store_path() {
  return ara::per::storage_folder() + "/" + port + ".json";
}

bool store_setting(const std::string& key, bool otherwise) try {
  const std::string initial = ara::per::initial_data_folder(port) + "/initdata-" + port + ".json";
  for (const auto& path : {store_path(), initial}) {
    std::ifstream stream(path);
    if (!stream) continue;
    const auto store = nlohmann::json::parse(stream, nullptr, false);
    const auto* const value = entry_of(store, key);
    return value != nullptr ? value->get<bool>() : otherwise;
  }
  return otherwise;
} catch (const std::exception&) {
  return otherwise;
}

}  // namespace posctl::doctor
