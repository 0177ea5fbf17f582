/// The elements of a deployed service: their presence, and the ids of each name.
#pragma once

#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

#include "platform/someip/base/deployment.h"
#include "tq/com/runtime.h"

namespace tq::com {

/// Throws std::runtime_error naming the key in the manifest `source` unless the service has every
/// one of `elements`, and each of these fields a notifier.
void require_elements(const someip::Service_deployment& service,
                      std::span<const Element> elements,
                      const std::string& source);

/// Throws std::runtime_error when the service has no such element.
[[nodiscard]] inline Element_ids element_ids(const someip::Service_deployment& service,
                                             std::string_view name) {
  for (const auto& method : service.methods) {
    if (method.name == name)
      return {.method = method.id, .getter = {}, .setter = {}, .notifier = {}};
  }
  for (const auto& event : service.events) {
    if (event.name == name) return {.method = {}, .getter = {}, .setter = {}, .notifier = event.id};
  }
  for (const auto& field : service.fields) {
    if (field.name != name) continue;
    return {
        .method = {}, .getter = field.getter, .setter = field.setter, .notifier = field.notifier};
  }
  throw std::runtime_error("deployment manifest: services." + service.name +
                           ": no method, event or field \"" + std::string(name) + "\"");
}

}  // namespace tq::com
