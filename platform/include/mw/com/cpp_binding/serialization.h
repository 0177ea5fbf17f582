/// The border between proxies or skeletons and the payload rules: a type on the wire has a
/// Serialization. The application's binding/ specialises it; the templates here only use it.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

namespace mw::com::cpp_binding {

/// Collects the JSON form of a payload for trace records; defined by the binding.
class Trace_json;

/// Required members:
///   static void encode(const T&, std::vector<std::byte>& out);   appends
///   static std::span<const std::byte> encode_into(const T&, std::vector<std::byte>& scratch);
///     without clearing or shrinking `scratch`, in which the result lies
///   static void decode(std::span<const std::byte>& in, T& out);  takes its bytes off the front;
///     throws
///   static void trace(const T&, Trace_json& json, unsigned position);
template <class T>
struct Serialization;

}  // namespace mw::com::cpp_binding
