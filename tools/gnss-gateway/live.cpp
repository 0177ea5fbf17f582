#include "tools/gnss-gateway/live.h"

#include <algorithm>
#include <stdexcept>

#include "tools/gnss-gateway/say.h"

namespace gateway {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using tools::Stop_signal;

constexpr auto brief_silence = 100ms;
/// Longer than the pauses of a radio link within an instant.
constexpr auto lasting_silence = 400ms;
/// After this time without a sentence, the gateway warns the user.
constexpr auto patience = 5s;
/// Longer than the usual second between two instants.
constexpr auto rate_trial = 2200ms;
/// Two sentences: one can be noise with a matching checksum.
constexpr std::uint64_t enough_sentences = 2;
constexpr auto device_interval = 500ms;

}  // namespace

void Rate_search::begin(Input& input, std::uint64_t sound_sentences, Time now) {
  rates_.assign(serial_rates.begin(), serial_rates.end());
  if (const auto current = input.rate()) {
    std::erase(rates_, *current);
    rates_.insert(rates_.begin(), *current);
  }
  at_ = 0;
  sound_before_ = sound_sentences;
  due_ = now + rate_trial;
}

std::optional<unsigned> Rate_search::look(Input& input, std::uint64_t sound_sentences, Time now) {
  if (due_ == Time::max()) return std::nullopt;
  if (sound_sentences >= sound_before_ + enough_sentences) {
    due_ = Time::max();
    return rates_.at(at_);
  }
  if (now < due_) return std::nullopt;
  at_ = (at_ + 1) % rates_.size();
  input.set_rate(rates_.at(at_));
  sound_before_ = sound_sentences;
  due_ = now + rate_trial;
  return std::nullopt;
}

Live::Live(const Nmea_options& options, Input& input, Output& output)
    : options_(options),
      input_(input),
      output_(output),
      publisher_(output),
      sink_([this](const nmea::Fix& fix) { publisher_.publish(fix); }) {}

Source_result Live::run() {
  if (input_.is_open()) begin();
  bool ended = false;
  while (!ended && !output_.is_done()) {
    if (!input_.is_open()) {
      if (!await_device()) break;
      continue;
    }
    const auto wake = output_.wait_until(next_due(), input_.descriptor());
    if (wake == Stop_signal::Wake::stopped) break;
    if (wake == Stop_signal::Wake::readable) ended = !take_bytes();
    handle_time(steady_clock::now());
  }
  if (ended) reader_.finish(sink_);
  if (ended && reader_.counters().sentences == 0) {
    throw std::runtime_error(name() + " held no NMEA 0183 sentence of a GNSS receiver");
  }
  publisher_.result().nmea = reader_.counters();
  return publisher_.result();
}

void Live::begin() {
  received_ = understood_ = steady_clock::now();
  silences_ = 2;
  warned_ = false;
  if (!input_.is_serial()) return;
  if (options_.baud) {
    input_.set_rate(*options_.baud);
  } else {
    search_.begin(input_, reader_.counters().sound(), received_);
  }
}

/// Returns false at the end of the input.
bool Live::take_bytes() {
  const auto bytes = input_.read();
  if (!bytes) return true;
  if (!bytes->empty()) {
    received_ = steady_clock::now();
    silences_ = 0;
    reader_.feed(*bytes, sink_);
    return true;
  }
  if (input_.kind() != Input::Kind::device) return false;
  if (!options_.reconnect) {
    throw std::runtime_error(name() + " has gone: the device was unplugged or hung up");
  }
  input_.close();
  reader_.pause(nmea::Silence::lasting, sink_);
  return true;
}

void Live::handle_time(Time now) {
  if (!input_.is_open()) return;
  if (silences_ == 0 && now >= received_ + brief_silence) {
    silences_ = 1;
    reader_.pause(nmea::Silence::brief, sink_);
  }
  if (silences_ == 1 && now >= received_ + lasting_silence) {
    silences_ = 2;
    reader_.pause(nmea::Silence::lasting, sink_);
  }
  if (reader_.counters().sound() != sound_) {
    sound_ = reader_.counters().sound();
    understood_ = now;
    warned_ = false;
  }
  if (const auto rate = search_.look(input_, sound_, now)) {
    say(name() + " sends NMEA 0183 at " + std::to_string(*rate) + " baud");
  }
  if (!warned_ && now >= understood_ + patience) {
    warned_ = true;
    say("no NMEA 0183 sentence from " + name() + " for " + std::to_string(patience.count()) + " s");
  }
}

Live::Time Live::next_due() const {
  auto due = search_.due();
  if (silences_ == 0) due = std::min(due, received_ + brief_silence);
  if (silences_ == 1) due = std::min(due, received_ + lasting_silence);
  if (!warned_) due = std::min(due, understood_ + patience);
  return due;
}

/// Returns false when the output is done before the device is back.
bool Live::await_device() {
  say(name() + " is not there, waiting for it");
  while (!input_.reopen()) {
    if (output_.wait_until(steady_clock::now() + device_interval) == Stop_signal::Wake::stopped) {
      return false;
    }
  }
  if (input_.kind() != Input::Kind::device) {
    throw std::runtime_error(name() + " is no device any more");
  }
  say(name() + " is there");
  begin();
  return true;
}

}  // namespace gateway
