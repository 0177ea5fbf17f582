/// Encoding and decoding of notifications, against protobuf with the same fields and against memcpy
/// of the payload.
#include <benchmark/benchmark.h>

#include <cstring>

#include "baseline.pb.h"
#include "binding/codec.h"
#include "clients/gnss_records.h"

namespace {

using lumo::services::gnss::datatypes::DT_posGnssSatInfos_struct;
using lumo::services::gnss::datatypes::DT_positions_struct;

/// Fills the first `members` members.
template <class Record>
Record filled(std::size_t members) {
  Record record;
  std::size_t number = 0;
  binding::for_each_member<Record>([&]<class M>(const M& m) {
    if (number++ >= members) return;
    using Value = typename M::value_type;
    if constexpr (std::is_same_v<Value, binding::Value_type>) {
      record.*m.pointer = binding::Value_type::physical_value;
    } else {
      record.*m.pointer = static_cast<Value>(1000 + number);
    }
  });
  return record;
}

template <class Message>
void fill(Message& message, int members) {
  const auto* descriptor = Message::descriptor();
  const auto* reflection = Message::GetReflection();
  for (int index = 0; index < descriptor->field_count() && index < members; ++index) {
    const auto* field = descriptor->field(index);
    switch (field->cpp_type()) {
      case google::protobuf::FieldDescriptor::CPPTYPE_DOUBLE:
        reflection->SetDouble(&message, field, 1001.0 + index);
        break;
      case google::protobuf::FieldDescriptor::CPPTYPE_FLOAT:
        reflection->SetFloat(&message, field, 1001.0F + static_cast<float>(index));
        break;
      default:
        reflection->SetUInt32(
            &message, field,
            field->name().ends_with("type") ? 4U : 1001U + static_cast<unsigned>(index));
    }
  }
}

baseline::Positions protobuf_positions(int members) {
  baseline::Positions positions;
  fill(*positions.add_position(), members);
  return positions;
}
baseline::Satellites protobuf_satellites(int count) {
  baseline::Satellites satellites;
  for (int i = 0; i < count; ++i)
    fill(*satellites.add_satellite(), 9);
  return satellites;
}

template <class Value>
void encode_with_binding(benchmark::State& state, const Value& value) {
  binding::Buffer scratch;
  std::span<const std::byte> payload;
  for ([[maybe_unused]] auto _ : state) {
    payload = binding::encode_into(value, scratch);
    benchmark::DoNotOptimize(payload.data());
    benchmark::ClobberMemory();
  }
  state.counters["bytes"] = static_cast<double>(payload.size());
}

template <class Value>
void decode_with_binding(benchmark::State& state, const Value& value) {
  binding::Buffer payload;
  binding::encode(value, payload);
  Value out;
  for ([[maybe_unused]] auto _ : state) {
    binding::Cursor cursor{payload};
    binding::decode(cursor, out);
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
}

template <class Message>
void encode_with_protobuf(benchmark::State& state, const Message& message) {
  std::string payload;
  for ([[maybe_unused]] auto _ : state) {
    message.SerializeToString(&payload);
    benchmark::DoNotOptimize(payload.data());
    benchmark::ClobberMemory();
  }
}

template <class Message>
void decode_with_protobuf(benchmark::State& state, const Message& message) {
  const auto payload = message.SerializeAsString();
  Message out;
  for ([[maybe_unused]] auto _ : state) {
    out.ParseFromString(payload);
    benchmark::DoNotOptimize(out);
    benchmark::ClobberMemory();
  }
}

template <class Value>
void copy_of_payload(benchmark::State& state, const Value& value) {
  binding::Buffer payload;
  binding::encode(value, payload);
  binding::Buffer out(payload.size());
  for ([[maybe_unused]] auto _ : state) {
    std::memcpy(out.data(), payload.data(), payload.size());
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
}

const std::vector full_position{filled<DT_positions_struct>(44)};
const std::vector sparse_position{filled<DT_positions_struct>(8)};
const std::vector<DT_posGnssSatInfos_struct> satellites(60, filled<DT_posGnssSatInfos_struct>(9));

BENCHMARK_CAPTURE(encode_with_binding, full_position, full_position);
BENCHMARK_CAPTURE(encode_with_protobuf, full_position, protobuf_positions(44));
BENCHMARK_CAPTURE(copy_of_payload, full_position, full_position);
BENCHMARK_CAPTURE(decode_with_binding, full_position, full_position);
BENCHMARK_CAPTURE(decode_with_protobuf, full_position, protobuf_positions(44));

BENCHMARK_CAPTURE(encode_with_binding, sparse_position, sparse_position);
BENCHMARK_CAPTURE(encode_with_protobuf, sparse_position, protobuf_positions(8));
BENCHMARK_CAPTURE(decode_with_binding, sparse_position, sparse_position);
BENCHMARK_CAPTURE(decode_with_protobuf, sparse_position, protobuf_positions(8));
BENCHMARK_CAPTURE(copy_of_payload, sparse_position, sparse_position);

BENCHMARK_CAPTURE(encode_with_binding, satellites, satellites);
BENCHMARK_CAPTURE(encode_with_protobuf, satellites, protobuf_satellites(60));
BENCHMARK_CAPTURE(copy_of_payload, satellites, satellites);
BENCHMARK_CAPTURE(decode_with_binding, satellites, satellites);
BENCHMARK_CAPTURE(decode_with_protobuf, satellites, protobuf_satellites(60));

}  // namespace

BENCHMARK_MAIN();
