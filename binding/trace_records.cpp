#include "binding/trace_records.h"

#include <array>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <vector>

#include "binding/trace_json.h"

namespace binding {

using ara::log::LogLevel;
using mw::com::cpp_binding::Trace_event;
using mw::com::cpp_binding::Trace_id;

namespace {

/// Keys sort by their numeric prefix, "2_…" before "10_…"; keys without a prefix are last.
struct By_prefix {
  using is_transparent = void;
  bool operator()(std::string_view a, std::string_view b) const {
    const auto number = [](std::string_view key) {
      if (key.empty() || key[0] < '0' || key[0] > '9')
        return std::numeric_limits<unsigned long>::max();
      unsigned long value = 0;
      for (const char c : key) {
        if (c < '0' || c > '9') break;
        value = value * 10 + static_cast<unsigned long>(c - '0');
      }
      return value;
    };
    const auto first = number(a);
    const auto second = number(b);
    return first != second ? first < second : a < b;
  }
};
template <class Key, class Value, class, class Allocator>
using Prefix_map = std::map<Key, Value, By_prefix, Allocator>;
using Json = nlohmann::basic_json<Prefix_map>;

/// The members by which a record names its subject.
enum class Subject : std::uint8_t {
  service_and_instance,
  searched_service_and_instance,  ///< proxy side, which knows only the interface's name
  searched_service,
  instance_only,
  event_only,
};

struct Record_kind {
  std::string_view name;
  Subject subject = Subject::service_and_instance;
  std::string_view element_key = {};
  bool call = false;  ///< "5_method_call_id"
  std::string_view error_key = {};
  bool constructed = false;  ///< "4_struct4bytes", "5_utf8simple"
  std::string_view time_key = {};
};

constexpr auto searched = Subject::searched_service_and_instance;

/// In the order of Trace_id.
constexpr std::array<Record_kind, mw::com::cpp_binding::trace_id_count> kinds{
    {{.name = "Offer_service"},
     {.name = "Stop_offer_service"},
     {.name = "Service_skeleton_constructed", .constructed = true},
     {.name = "Service_instantiation_error", .subject = Subject::instance_only},
     {.name = "Method_call_request_process", .element_key = "4_method_id", .call = true},
     {.name = "Method_call_request_err", .element_key = "4_method_id", .error_key = "5_error_code"},
     {.name = "Method_call_request_exception", .element_key = "4_method_id"},
     {.name = "Method_call_response_tx",
      .element_key = "4_method_id",
      .call = true,
      .error_key = "6_error_code"},
     {.name = "Event_update_tx", .subject = Subject::event_only},
     {.name = "Event_request_update_err", .element_key = "4_event_id"},
     {.name = "Service_proxy_constructed", .constructed = true},
     {.name = "Find_service_start", .subject = searched},
     {.name = "Find_service_stop", .subject = Subject::searched_service},
     {.name = "Find_service_result", .subject = searched},
     {.name = "Service_handle"},
     {.name = "Find_service_handler_performance", .subject = searched, .time_key = "4_time"},
     {.name = "Find_service_handler_exception", .subject = searched},
     {.name = "Field_subscribe", .element_key = "4_event_id"},
     {.name = "Field_unsubscribe", .element_key = "4_event_id"},
     {.name = "Event_receive_handler", .element_key = "4_event_id"},
     {.name = "Event_receive_handler_performance",
      .element_key = "4_event_id",
      .time_key = "5_time"},
     {.name = "Event_receive_handler_exception", .element_key = "4_event_id"},
     {.name = "Event_state_handler_exception", .element_key = "4_event_id"},
     {.name = "Event_update_rx", .element_key = "4_event_id"},
     {.name = "Event_update_when_not_subscribed", .element_key = "4_event_id"},
     {.name = "Event_cache_update", .element_key = "4_event_id"},
     {.name = "Event_deserialize_exception", .element_key = "4_event_id"}}};

const Record_kind& kind_of(Trace_id id) {
  return kinds.at(static_cast<std::size_t>(id));
}

class Json_builder final : public mw::com::cpp_binding::Trace_json {
 public:
  void uint8(unsigned position, std::uint8_t value) override { put(position, "uint8", value); }
  void uint16(unsigned position, std::uint16_t value) override { put(position, "uint16", value); }
  void undefined(unsigned position) override { put(position, "undefined_type", "undefined_type"); }
  void begin(unsigned position, std::string_view kind) override {
    auto& inner = (*open_.back())[key(position, kind)];
    inner = Json::object();
    open_.push_back(&inner);
  }
  void end() override { open_.pop_back(); }
  [[nodiscard]] Json take() { return std::move(root_); }

 private:
  static std::string key(unsigned position, std::string_view kind) {
    return std::to_string(position).append("_").append(kind);
  }
  template <class Value>
  void put(unsigned position, std::string_view kind, Value value) {
    (*open_.back())[key(position, kind)] = value;
  }

  Json root_ = Json::object();
  std::vector<Json*> open_{&root_};  ///< std::map keeps its values in place while others are added
};

Json instance_object(std::string_view text) {
  return {{"1_id", "Instance_id"}, {"2_string", std::string{text}}};
}

void add_subject(Json& record, Subject subject, const Trace_event& event) {
  const auto service = [&](const char* text_key) {
    record["2_service_id"] = Json{{"1_id", "Service_id"}, {text_key, std::string{event.service}}};
  };
  switch (subject) {
    case Subject::service_and_instance:
      service("string");
      record["3_instance_id"] = instance_object(event.instance);
      break;
    case Subject::searched_service_and_instance:
      service("2_char const*");
      record["3_instance_id"] = instance_object(event.instance);
      break;
    case Subject::searched_service:
      service("2_char const*");
      break;
    case Subject::instance_only:
      record["2_instance_id"] = instance_object(event.instance);
      break;
    case Subject::event_only:
      record["2_Event_id"] = event.element;
      break;
  }
}

}  // namespace

bool Platform_trace_logger::is_enabled(LogLevel level) const {
  return logger_.IsEnabled(level);
}

void Platform_trace_logger::log(LogLevel level, std::string_view text) {
  logger_.Log(level, text);
}

std::string_view name_of(Trace_id id) {
  return kind_of(id).name;
}

std::string to_json(const Trace_event& event) {
  const auto& kind = kind_of(event.id);
  Json record = Json::object();
  record["1_id"] = std::string{kind.name};
  add_subject(record, kind.subject, event);
  if (!kind.element_key.empty()) record[std::string{kind.element_key}] = event.element;
  if (kind.call) record["5_method_call_id"] = event.call;
  if (!kind.error_key.empty()) record[std::string{kind.error_key}] = event.error;
  if (kind.constructed) {
    record["4_struct4bytes"] = event.version;
    record["5_utf8simple"] = std::string{event.short_name};
  }
  if (!kind.time_key.empty()) record[std::string{kind.time_key}] = event.duration.count();

  Json line = Json::object();
  line["1_incident"] = std::move(record);
  if (event.payload.describe != nullptr) {
    Json_builder payload;
    event.payload.describe(event.payload.object, payload);
    line["2_data"] = payload.take();
  }
  return line.dump();
}

Trace_records::Trace_records(Trace_logger& logger) : Trace_sink{logger.context()}, logger_{logger} {
  mw::com::cpp_binding::set_trace_sink(this);
}

Trace_records::~Trace_records() {
  mw::com::cpp_binding::set_trace_sink(nullptr);
}

bool Trace_records::is_enabled(Trace_id id) const noexcept {
  return logger_.is_enabled(mw::com::cpp_binding::trace_level(id));
}

void Trace_records::write(const Trace_event& event) noexcept {
  std::string text;
  try {
    text = to_json(event);
  } catch (...) {
    // Tracing never lets the traced operation fail; the empty line shows that a record is missing.
    text.clear();
  }
  try {
    logger_.log(mw::com::cpp_binding::trace_level(event.id), text);
  } catch (...) {
    return;
  }
}

}  // namespace binding
