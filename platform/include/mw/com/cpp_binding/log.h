/// The few plain lines that the binding writes to the platform log, beside its trace records.
/// Context "MWCB", description "Communication binding". Peers and handlers can cause each of these
/// lines at will, so the binding writes at most ten lines of a kind per second. The next line then
/// gives the number of suppressed lines.
#pragma once

#include <cstdint>
#include <string_view>

namespace mw::com::cpp_binding {

/// Logs "Get handler enabled but not configured and Update not called; Method_id=" and the id.
void log_get_without_value(std::uint16_t method);
/// Logs "Notify enabled but Update not called; Event_id=" and the id.
void log_notify_without_value(std::uint16_t event);
/// Logs a dropped payload that could not be decoded. `element` names the event or method.
void log_malformed_payload(std::string_view service,
                           std::string_view element,
                           std::string_view error);

/// The application's handlers that the binding calls.
enum class Handler : std::uint8_t { receive, subscription_state, find_service, method };

/// Logs an exception that left a handler. Call it while that exception is being handled, because it
/// writes the exception's text. `element` names the event, the method or the instance of the
/// search.
void log_handler_exception(Handler handler, std::string_view service, std::string_view element);

}  // namespace mw::com::cpp_binding
