/// The few plain lines that the binding writes into the platform log, beside its trace records.
/// Context "MWCB", description "Communication binding". Peers and handlers can cause each of them
/// at will, so at most ten lines of a kind are written per second; the next line then says how many
/// were suppressed.
#pragma once

#include <cstdint>
#include <string_view>

namespace mw::com::cpp_binding {

/// "Get handler enabled but not configured and Update not called; Method_id=" and the id.
void log_get_without_value(std::uint16_t method);
/// "Notify enabled but Update not called; Event_id=" and the id.
void log_notify_without_value(std::uint16_t event);
/// A payload that could not be decoded was dropped. `element` names the event or method.
void log_malformed_payload(std::string_view service,
                           std::string_view element,
                           std::string_view error);

/// What the binding calls of the application's.
enum class Handler : std::uint8_t { receive, subscription_state, find_service, method };

/// An exception left a handler. Call it where that exception is being handled: it writes the
/// exception's text. `element` names the event, the method or the instance that is searched for.
void log_handler_exception(Handler handler, std::string_view service, std::string_view element);

}  // namespace mw::com::cpp_binding
