#include "platform/linux/per/stored_values.h"

#include "platform/linux/per/location.h"

namespace ara::per {

Stored_values stored_values(const Store_file& file, const std::string& port) {
  using Origin = Stored_values::Origin;
  if (const auto text = file.read()) return {parse_values(*text, file.path()), Origin::file};
  const auto folder = initial_data_folder(port);
  if (folder.empty()) return {};
  const Store_file initial(folder, "initdata-" + port + ".json", Files::of_the_system());
  const auto text = initial.read();
  if (!text) return {};
  return {parse_values(*text, initial.path()), Origin::first_values};
}

Store_file file_of_store(const std::string& port) {
  return {storage_folder(), port + ".json", Files::of_the_system()};
}

}  // namespace ara::per
