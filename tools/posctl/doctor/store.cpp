#include "tools/posctl/doctor/store.h"

#include <exception>

#include "app/application_instance.h"
#include "ara/per/exceptions.h"
#include "platform/linux/per/stored_values.h"

namespace posctl::doctor {

std::optional<std::string> store_path() try {
  return ara::per::file_of_store(settings_port).path();
} catch (const ara::per::ExceptionStorageLocationNotFound&) {
  return std::nullopt;
}

bool store_setting(const std::string& key, bool otherwise) try {
  const auto values =
      ara::per::stored_values(ara::per::file_of_store(settings_port), settings_port).values;
  const auto found = values.find(key);
  const bool known =
      found != values.end() && found->second.GetType() == ara::per::KvsType::Type::kBoolean;
  return known ? found->second.GetBool() : otherwise;
} catch (const std::exception&) {
  return otherwise;
}

}  // namespace posctl::doctor
