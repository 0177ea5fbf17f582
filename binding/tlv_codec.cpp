#include "binding/tlv_codec.h"

namespace binding {

namespace {

/// Returns the first match in list order. Records number their members densely, so the entry is
/// nearly always the one at the index of its data ID.
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

/// Reads the item behind a tag: decodes the member of `entry`, or skips the item if `entry` is
/// null.
void read_item(Cursor& cursor,
               std::uint16_t tag,
               const Tag_entry* entry,
               void* record,
               const Serialization_settings& settings) {
  if (entry != nullptr && !wire_types_agree(wire_type_of(tag), wire_type_of(entry->tag)))
    throw_invalid_wire_type();
  const auto length = member_size(cursor, tag, settings);
  if (entry == nullptr) {
    cursor.skip(length);
  } else if (wire_type_of(tag) <= Wire_type::bits_64) {
    // Reading the value checks the bounds of a member of fixed size.
    entry->read(cursor, cursor.size(), record, settings);
  } else {
    const auto end = end_position(cursor.position(), cursor.size(), length);
    entry->read(cursor, end, record, settings);
    finish_item(cursor, end);
  }
}

/// Reads items as long as members are in declaration order, with unknown ones between them. Stops
/// behind the last member of the list and ahead of a member that should have come earlier. Returns
/// the number of members found.
std::size_t read_members_in_order(Cursor& cursor,
                                  std::size_t end,
                                  std::span<const Tag_entry> tags,
                                  void* record,
                                  const Serialization_settings& settings) {
  std::size_t found = 0;
  const auto* place = tags.data();
  const auto* const behind_last = place + tags.size();
  while (cursor.position() < end) {
    const auto start = cursor.position();
    const auto tag = cursor.read<std::uint16_t>(Byte_order::big_endian);
    const auto* entry = find_tag(tags, tag & data_id_mask);
    if (tags.empty()) throw_no_tag_list();
    if (entry != nullptr && entry < place) {
      cursor.seek(start);
      break;
    }
    read_item(cursor, tag, entry, record, settings);
    if (entry == nullptr) continue;
    ++found;
    place = entry + 1;
    if (place == behind_last) break;
  }
  return found;
}

/// True if a whole item follows ahead of `end`, and is unknown or has its member's wire type.
bool item_follows(Cursor cursor,
                  std::size_t end,
                  std::span<const Tag_entry> tags,
                  const Serialization_settings& settings) {
  const auto fits = [&](std::uint64_t size) {
    return cursor.position() <= end && size <= end - cursor.position();
  };
  if (!fits(sizeof(std::uint16_t))) return false;
  const auto tag = cursor.read<std::uint16_t>(Byte_order::big_endian);
  const auto wire_type = wire_type_of(tag);
  const auto* entry = find_tag(tags, tag & data_id_mask);
  if (entry != nullptr && !wire_types_agree(wire_type, wire_type_of(entry->tag))) return false;
  if (wire_type == Wire_type::configured_length && !has_configured_length(settings)) return false;
  return fits(length_field_size(wire_type, settings)) && fits(member_size(cursor, tag, settings));
}

}  // namespace

void read_members_in_any_order(Cursor& cursor,
                               std::size_t end,
                               std::span<const Tag_entry> tags,
                               void* record,
                               const Serialization_settings& settings) {
  if (read_members_in_order(cursor, end, tags, record, settings) < tags.size()) {
    // Members may still follow out of order. The first bytes that are no item begin a surplus.
    while (item_follows(cursor, end, tags, settings)) {
      const auto tag = cursor.read<std::uint16_t>(Byte_order::big_endian);
      read_item(cursor, tag, find_tag(tags, tag & data_id_mask), record, settings);
    }
  }
  if (cursor.position() < end) cursor.seek(end);
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

/// True if a key and a value, each behind its length field, lie within the received bytes.
bool entry_fits(Cursor cursor, const Serialization_settings& settings) {
  for (int string = 0; string < 2; ++string) {
    if (cursor.remaining() < settings.string_length_field_size) return false;
    const auto length = read_length_field(settings.string_length_field_size, cursor, settings);
    if (length > cursor.remaining()) return false;
    cursor.skip(length);
  }
  return true;
}

/// Skips entries of empty key and value, which consist of zeros, and returns their number.
std::size_t skip_empty_entries(Cursor& cursor,
                               std::size_t end,
                               const Serialization_settings& settings) {
  const auto size = 2 * settings.string_length_field_size;
  const auto is_empty = [&] {
    const auto* const from = cursor.data() + cursor.position();
    return size <= end - cursor.position() &&
           std::all_of(from, from + size, [](std::byte byte) { return byte == std::byte{}; });
  };
  std::size_t count = 0;
  for (; size != 0 && is_empty(); ++count)
    cursor.skip(size);
  return count;
}

}  // namespace

void Codec<std::map<std::string, std::string>>::read(Cursor& cursor,
                                                     std::size_t end,
                                                     Map& map,
                                                     const Serialization_settings& around) {
  const auto& settings = settings_within<std::string>(around);
  const auto read_string = [&](std::string& text) {
    const auto length = read_length_field(settings.string_length_field_size, cursor, settings);
    cursor.ensure_available(length);
    text.resize(static_cast<std::size_t>(length));
    cursor.read(text.data(), text.size());
  };
  map.clear();
  // Behind the first entry, bytes that are no entry are the surplus of a newer sender. Zeros ahead
  // of a surplus belong to it, though they could be empty entries.
  for (bool first = true; cursor.position() < end; first = false) {
    const auto empty_entries = skip_empty_entries(cursor, end, settings);
    const bool at_end = cursor.position() == end;
    if (!at_end && !(first && empty_entries == 0) && !entry_fits(cursor, settings)) break;
    if (empty_entries != 0) map.emplace();
    if (at_end) break;
    std::string key;
    std::string value;
    read_string(key);
    read_string(value);
    map.emplace(std::move(key), std::move(value));
  }
}

}  // namespace binding
