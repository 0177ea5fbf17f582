/// Collects the JSON form of a payload: members under keys made of position and kind.
#pragma once

#include <cstdint>
#include <string_view>

#include "mw/com/cpp_binding/serialization.h"

namespace mw::com::cpp_binding {

class Trace_json {
 public:
  Trace_json() = default;
  virtual ~Trace_json() = default;
  Trace_json(const Trace_json&) = delete;
  Trace_json& operator=(const Trace_json&) = delete;

  virtual void uint8(unsigned position, std::uint8_t value) = 0;
  virtual void uint16(unsigned position, std::uint16_t value) = 0;
  /// A value whose type has no JSON form.
  virtual void undefined(unsigned position) = 0;
  /// Opens an "array", a "vector" or a "generated_type"; the members until end() are inside it.
  virtual void begin(unsigned position, std::string_view kind) = 0;
  virtual void end() = 0;
};

}  // namespace mw::com::cpp_binding
