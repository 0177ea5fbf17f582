#include <algorithm>
#include <charconv>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "app/application_instance.h"
#include "ara/per/key_value_storage.h"
#include "binding/statistics.h"
#include "platform/linux/per/location.h"
#include "platform/linux/per/stored_values.h"
#include "tools/command.h"
#include "tools/near_name.h"
#include "tools/posctl/commands.h"
#include "tools/posctl/connect.h"
#include "tools/posctl/record_json.h"
#include "tools/posctl/setting_table.h"

namespace posctl {
namespace {

using ara::per::KeyValueStorage;
using ara::per::KvsType;
using binding::Statistics;
using binding::Statistics_proxy;

std::unique_ptr<KeyValueStorage> open_store() {
  try {
    return std::make_unique<KeyValueStorage>(settings_port);
  } catch (const ara::per::ExceptionStorageLocationNotFound&) {
    // The first attempt has made the folder.
    return std::make_unique<KeyValueStorage>(settings_port);
  }
}

/// As JSON; null for what is not stored or has another type.
Json stored_value(const ara::per::Values& store, const Setting& setting) {
  const auto found = store.find(setting.key);
  if (found == store.end()) return {};
  const KvsType& value = found->second;
  const bool is_flag = setting.type == "Boolean";
  if (value.GetType() != (is_flag ? KvsType::Type::kBoolean : KvsType::Type::kUInt32)) return {};
  return is_flag ? Json(value.GetBool()) : Json(value.GetUInt());
}

/// The settings that the running application has read; nothing if none answers.
std::optional<Statistics::Settings_result> running_settings(const Look_options& options) {
  try {
    return on_the_way(options.way, [&] {
      const auto deadline = deadline_in(options.timeout);
      const auto service = connect<Statistics_proxy>(Statistics::name, deadline);
      return result_of(service->Settings(), Statistics::Settings.name, deadline);
    });
  } catch (const tools::No_answer&) {
    return std::nullopt;
  }
}

/// A row: the value in force, its origin, and the stored one if a restart would change it.
Json row_of(const Setting& setting,
            const std::optional<Statistics::Settings_result>& running,
            const std::optional<ara::per::Values>& store) {
  Json row{{"key", setting.key}, {"value", nullptr}, {"default", Json::parse(setting.usual)}};
  const Json stored = store ? stored_value(*store, setting) : Json();
  if (running) {
    const auto found = std::ranges::find(*running, setting.key, &binding::Setting_in_force::key);
    if (found == running->end()) return row;
    row["value"] = Json::parse(found->value, nullptr, false);
    row["from"] = found->stored ? "store" : "default";
  } else {
    row["value"] = stored.is_null() ? row["default"] : stored;
    row["from"] = stored.is_null() ? "default" : "store";
  }
  const Json next = stored.is_null() ? row["default"] : stored;
  row["needsRestart"] = store && next != row["value"];
  if (row["needsRestart"].get<bool>()) row["afterRestart"] = next;
  row["meaning"] = setting.meaning;
  return row;
}

std::string lines_of(const Json& json) {
  std::string text = json["running"].get<bool>()
                         ? "The application runs with these settings:\n"
                         : "No application answers. It would start with these settings:\n";
  for (const auto& row : json["settings"]) {
    std::string line = "  " + row["key"].get<std::string>();
    line.resize(38, ' ');
    line += row["value"].dump();
    line.resize(std::max<std::size_t>(line.size() + 1, 45), ' ');
    const std::string from = row.value("from", "");
    line += from == "store" ? "from the store, default " + row["default"].dump() : "the default";
    if (row.value("needsRestart", false)) {
      line += "; after a restart " + row["afterRestart"].dump();
    }
    text += line + "\n";
  }
  return text + json["store"].get<std::string>() + "\n";
}

const Setting& setting_named(const std::string& key) {
  const auto* const found = std::ranges::find(setting_table, key, &Setting::key);
  if (found != setting_table.end()) return *found;
  std::vector<std::string_view> names;
  names.reserve(setting_table.size());
  for (const auto& one : setting_table)
    names.push_back(one.key);
  throw tools::Usage_error("there is no setting \"" + key + "\"" + tools::did_you_mean(key, names) +
                           "\nposctl settings lists them.");
}

KvsType value_of(const Setting& setting, const std::string& text) {
  if (setting.type == "Boolean") {
    if (text == "true" || text == "false") return KvsType(text == "true");
  } else {
    std::uint32_t number = 0;
    const auto* const end = text.data() + text.size();
    const auto [parsed, error] = std::from_chars(text.data(), end, number);
    if (error == std::errc{} && parsed == end) return KvsType(number);
  }
  const std::string expected =
      setting.type == "Boolean" ? "true or false" : "a number from 0 to 4294967295";
  throw tools::Usage_error(std::string(setting.key) + ": expected " + expected + ", found \"" +
                           text + "\"");
}

}  // namespace

int settings(const Look_options& options) {
  const auto running = running_settings(options);
  std::optional<ara::per::Values> store;
  Json json{{"schema", 1}, {"running", running.has_value()}, {"settings", Json::array()}};
  try {
    const auto file = ara::per::file_of_store(settings_port);
    auto stored = ara::per::stored_values(file, settings_port);
    const bool is_there = stored.origin == ara::per::Stored_values::Origin::file;
    json["store"] = (is_there ? "Store: " : "No store yet: ") + file.path();
    store = std::move(stored.values);
  } catch (const std::exception& error) {
    json["store"] = std::string("The store cannot be read: ") + error.what();
  }
  for (const auto& setting : setting_table)
    json["settings"].push_back(row_of(setting, running, store));
  tools::write_output(options.json ? json.dump() + "\n" : lines_of(json));
  return 0;
}

int set_setting(const Set_options& options) {
  const auto& setting = setting_named(options.key);
  const KvsType value = value_of(setting, options.value);
  Look_options look;
  look.timeout = options.timeout;
  look.way = options.way;
  if (running_settings(look)) {
    throw std::runtime_error(
        "the application is running. It reads its settings once, at its start, and its store has "
        "one user at a time: stop it, set the value, start it.");
  }
  const auto store = open_store();
  store->SetValue(options.key, value);
  store->SyncToStorage();
  tools::write_output(options.key + " = " + options.value + " is stored in " +
                      ara::per::storage_folder() +
                      ". No application answered; the next one that starts with this "
                      "store takes it.\n");
  return 0;
}

}  // namespace posctl
