#include "platform/linux/com/element_ids.h"

#include <algorithm>

namespace tq::com {

void require_elements(const someip::Service_deployment& service,
                      std::span<const Element> elements,
                      const std::string& source) {
  const auto fail = [&](const std::string& key, std::string_view expected) {
    throw std::runtime_error(source + ": services." + service.name + "." + key + ": expected \"" +
                             std::string(expected) + "\", which the interface has");
  };
  for (const auto& [kind, name] : elements) {
    const auto is_named = [name = name](const auto& one) { return one.name == name; };
    switch (kind) {
      case Element_kind::method:
        if (std::ranges::none_of(service.methods, is_named)) fail("methods", name);
        break;
      case Element_kind::event:
        if (std::ranges::none_of(service.events, is_named)) fail("events", name);
        break;
      case Element_kind::field: {
        const auto field = std::ranges::find_if(service.fields, is_named);
        if (field == service.fields.end()) fail("fields", name);
        if (!field->notifier) fail("fields." + field->name, "notifier");
        break;
      }
    }
  }
}

}  // namespace tq::com
