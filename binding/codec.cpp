#include "binding/codec.h"

namespace binding {

namespace {

/// In list order, the first match; records number their members densely, so the entry is nearly
/// always the one at the index of its data ID.
const Tag_entry* find_tag(std::span<const Tag_entry> tags, std::uint16_t data_id) {
  if (data_id < tags.size() && (tags[data_id].tag & data_id_mask) == data_id) return &tags[data_id];
  for (const auto& entry : tags) {
    if ((entry.tag & data_id_mask) == data_id) return &entry;
  }
  return nullptr;
}

bool wire_types_agree(Wire_type sent, Wire_type expected) {
  return sent == expected || (sent > Wire_type::bits_64 && expected > Wire_type::bits_64);
}

}  // namespace

void read_members_in_any_order(Cursor& cursor,
                               std::size_t end,
                               std::span<const Tag_entry> tags,
                               void* record,
                               const Serialization_settings& settings) {
  while (cursor.position() < end) {
    const auto tag = cursor.read<std::uint16_t>(Byte_order::big_endian);
    const auto* entry = find_tag(tags, tag & data_id_mask);
    if (entry == nullptr) {
      if (tags.empty()) throw_no_tag_list();
      cursor.skip(member_size(cursor, tag, settings));
      continue;
    }
    if (!wire_types_agree(wire_type_of(tag), wire_type_of(entry->tag))) throw_invalid_wire_type();
    const auto length = member_size(cursor, tag, settings);
    if (wire_type_of(tag) <= Wire_type::bits_64) {
      // The value's own read checks the bounds of a member of fixed size.
      entry->read(cursor, cursor.size(), record, settings);
    } else {
      const auto member_end = end_position(cursor.position(), cursor.size(), length);
      entry->read(cursor, member_end, record, settings);
      finish_item(cursor, member_end);
    }
  }
}

std::size_t Codec<std::map<std::string, std::string>>::size(
    const Map& map, const Serialization_settings& settings) {
  std::size_t sum = 0;
  for (const auto& [key, value] : map)
    sum += nested_size(key, settings) + nested_size(value, settings);
  return sum;
}

std::byte* Codec<std::map<std::string, std::string>>::write(
    const Map& map, std::byte* to, const Serialization_settings& settings) {
  for (const auto& [key, value] : map) {
    to = write_nested(key, to, settings);
    to = write_nested(value, to, settings);
  }
  return to;
}

namespace {

/// Whether a key and a value, each behind its length field, lie within the received bytes.
bool entry_fits(Cursor cursor, const Serialization_settings& settings) {
  for (int string = 0; string < 2; ++string) {
    if (cursor.remaining() < settings.string_length_field_size) return false;
    const auto length = read_length_field(settings.string_length_field_size, cursor, settings);
    if (length > cursor.remaining()) return false;
    cursor.skip(length);
  }
  return true;
}

}  // namespace

void Codec<std::map<std::string, std::string>>::read(Cursor& cursor,
                                                     std::size_t end,
                                                     Map& map,
                                                     const Serialization_settings& settings) {
  const auto read_string = [&](std::string& text) {
    const auto length = read_length_field(settings.string_length_field_size, cursor, settings);
    cursor.ensure_available(length);
    text.resize(static_cast<std::size_t>(length));
    cursor.read(text.data(), text.size());
  };
  map.clear();
  // Behind the first entry, what is no entry any more is the surplus of a sender with more to say.
  for (bool first = true; cursor.position() < end; first = false) {
    if (!first && !entry_fits(cursor, settings)) break;
    std::string key;
    std::string value;
    read_string(key);
    read_string(value);
    map.emplace(std::move(key), std::move(value));
  }
}

}  // namespace binding
