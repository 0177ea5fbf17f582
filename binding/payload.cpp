#include "binding/payload.h"

#include <stdexcept>
#include <string>

namespace binding {

void throw_length_does_not_fit() {
  throw std::overflow_error{"Calculated record length does not fit into configured length field"};
}
void throw_invalid_length_field_size() {
  throw std::invalid_argument{"Invalid value for length field size."};
}
void throw_offset_overflow() {
  throw std::overflow_error{"Deserialization detected std::size_t overflow."};
}
void throw_invalid_end_position() {
  throw std::out_of_range{"Deserialization calculated invalid end position."};
}
void throw_record_length_too_small() {
  throw std::out_of_range{
      "Violation of [PRS_SOMEIP_00900]: Record length given by sender is too small. This is "
      "possibly due "
      "to a mismatch between the data models of sender and receiver."};
}
void throw_read_beyond_end() {
  throw std::out_of_range{"Read beyond the end of the data buffer"};
}
void throw_seek_beyond_end() {
  throw std::out_of_range{"Seek beyond the end of the data buffer"};
}
void throw_null_destination() {
  throw std::invalid_argument{"destination cannot be NULL"};
}
void throw_invalid_wire_type() {
  throw std::runtime_error{"Invalid source tag wire type"};
}
void throw_no_tag_list() {
  throw std::runtime_error{
      "Deserialization of a type in TLV mode, but no tag list generated. This is an error in the "
      "generator."};
}
void throw_vector_without_length_field() {
  throw std::invalid_argument{
      "Vectors must have a length field that deserializer can also deserialize it. Violation of "
      "PRS_SOMEIP_00376 & PRS_SOMEIP_00107!"};
}
void throw_list_takes_too_much() {
  throw std::length_error{"The elements of a list take more memory than a list may have"};
}
void throw_unequal_length_field_sizes(const Serialization_settings& settings) {
  throw std::runtime_error{
      "Violation of COM.PRS_SOMEIP_00215: All length fields must have same size and not be 0 when "
      "wire "
      "type 4 is used (" +
      std::to_string(settings.array_length_field_size) + "," +
      std::to_string(settings.string_length_field_size) + "," +
      std::to_string(settings.structure_length_field_size) + ")"};
}

void write_length_field(std::uint64_t size,
                        std::uint64_t value,
                        Buffer& buffer,
                        const Serialization_settings& settings) {
  std::byte field[4];
  std::byte* const end = store_length_field(field, size, value, settings);
  buffer.insert(buffer.end(), field, end);
}

bool has_configured_length(const Serialization_settings& settings) {
  return settings.array_length_field_size != 0 &&
         settings.array_length_field_size == settings.string_length_field_size &&
         settings.array_length_field_size == settings.structure_length_field_size;
}

std::uint64_t length_field_size(Wire_type wire_type, const Serialization_settings& settings) {
  switch (wire_type) {
    case Wire_type::configured_length:
      if (!has_configured_length(settings)) throw_unequal_length_field_sizes(settings);
      return settings.array_length_field_size;
    case Wire_type::length_8:
      return 1;
    case Wire_type::length_16:
      return 2;
    case Wire_type::length_32:
      return 4;
    default:
      return 0;
  }
}

std::uint64_t member_size(Cursor& cursor,
                          std::uint16_t tag,
                          const Serialization_settings& settings) {
  const auto wire_type = wire_type_of(tag);
  if (wire_type <= Wire_type::bits_64) return std::uint64_t{1} << static_cast<unsigned>(wire_type);
  return read_length_field(length_field_size(wire_type, settings), cursor, settings);
}

}  // namespace binding
