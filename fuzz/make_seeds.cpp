// Writes the seeds that our own encoders make: make_seeds FOLDER. fuzz/make_seeds.py adds those of
// other software and calls this one.
#include <filesystem>
#include <fstream>
#include <iostream>
#include <limits>

#include "fuzz/payload_types.h"
#include "platform/linux/per/json_text.h"

namespace {

namespace fs = std::filesystem;

fs::path folder;

void write(const std::string& target, const std::string& name, fuzz::Bytes bytes) {
  fs::create_directories(folder / target);
  std::ofstream file(folder / target / name, std::ios::binary);
  file.write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
  if (!file) throw std::runtime_error((folder / target / name).string() + " cannot be written");
}

/// Every member gets a value, each another one.
void fill(auto& value, unsigned& number);

void fill_value(binding::Scalar auto& value, unsigned& number) {
  using Value = std::remove_cvref_t<decltype(value)>;
  value = static_cast<Value>(++number);
}
void fill_value(std::string& text, unsigned& number) {
  text = "text " + std::to_string(++number);
}
void fill_value(std::map<std::string, std::string>& map, unsigned& number) {
  map = {{"source", "tester"}, {"key " + std::to_string(++number), ""}};
}
template <class T>
void fill_value(std::vector<T>& values, unsigned& number) {
  values.resize(2);
  for (auto& value : values)
    fill(value, number);
}
template <class T, std::size_t Count>
void fill_value(std::array<T, Count>& values, unsigned& number) {
  for (auto& value : values)
    fill(value, number);
}
template <class T>
void fill_value(boost::optional<T>& value, unsigned& number) {
  value.emplace();
  fill(*value, number);
}
template <binding::Described T>
void fill_value(T& record, unsigned& number) {
  binding::for_each_member<T>([&](const auto& member) { fill(record.*member.pointer, number); });
}
void fill(auto& value, unsigned& number) {
  fill_value(value, number);
}

/// The payload of a value behind the two bytes that choose type and settings.
template <class T>
void write_payload(const std::string& target, std::uint8_t type, const std::string& name) {
  T value{};
  for (const bool full : {false, true}) {
    unsigned number = 0;
    if (full) fill(value, number);
    std::vector<std::byte> bytes{std::byte{type}, std::byte{0}};
    binding::encode(value, bytes);
    write(target, std::to_string(type) + "_" + name + (full ? "_full" : "_empty"), bytes);
  }
}

template <class... Types>
void write_payloads(const std::string& target,
                    const std::array<std::string, sizeof...(Types)>& names,
                    fuzz::Codec_types<Types...>) {
  std::uint8_t type = 0;
  ((write_payload<Types>(target, type, names[type]), ++type), ...);
}

void write_store() {
  using ara::per::KvsType;
  const ara::per::Values values{
      {"boolean", KvsType(true)},
      {"smallest", KvsType(std::numeric_limits<std::int64_t>::min())},
      {"largest", KvsType(std::numeric_limits<std::uint64_t>::max())},
      {"byte", KvsType(std::uint8_t{255})},
      {"short", KvsType(std::int16_t{-1})},
      {"float", KvsType(1.1F)},
      {"double", KvsType(-2.2250738585072014e-308)},
      {"not a number", KvsType(std::numeric_limits<double>::quiet_NaN())},
      {"text", KvsType("Grüße, \"du\"\n")},
      {"binary", KvsType(std::vector<std::uint8_t>{0, 255, 16})},
  };
  const std::string text = ara::per::to_text(values);
  write("key_value_storage", "all_types.json", std::as_bytes(std::span(text)));
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 2) {
    std::cerr << "usage: make_seeds FOLDER\n";
    return 2;
  }
  folder = arguments[1];
  write_payloads(
      "records",
      {"gnss_positions", "gnss_quality", "gnss_satellites", "times", "time_settings", "positions",
       "map_info", "one_gnss_position", "one_time_settings", "everything", "everythings"},
      fuzz::Record_types{});
  write_payloads("string_map", {"map", "text", "texts"}, fuzz::String_types{});
  write_payloads("diagnostic_outputs",
                 {"inputs", "outputs", "position", "system", "not_available", "error_value",
                  "implausible", "init_reason", "action"},
                 fuzz::Diagnostic_types{});
  write_store();
}
