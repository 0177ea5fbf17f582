/// Bytes in, fixes out: the whole path of an NMEA 0183 stream, without any input or output of its
/// own.
#pragma once

#include <cstddef>
#include <functional>
#include <span>

#include "tools/nmea/epoch_builder.h"
#include "tools/nmea/fix.h"
#include "tools/nmea/framer.h"

namespace nmea {

class Reader {
 public:
  using Sink = std::function<void(const Fix&)>;

  Reader() : framer_(counters_), builder_(counters_) {}
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  /// Any cut of the stream into pieces gives the same fixes. `sink` is called once for each that
  /// has ended.
  void feed(std::span<const std::byte> bytes, const Sink& sink);

  /// A live receiver is silent: `sink` gets the position of the present instant, or the satellites
  /// that have arrived since. An unfinished line continues with the next bytes.
  void pause(Silence silence, const Sink& sink);

  /// The stream has ended.
  void finish(const Sink& sink);

  [[nodiscard]] const Counters& counters() const { return counters_; }

 private:
  Counters counters_;
  Framer framer_;
  Epoch_builder builder_;
};

}  // namespace nmea
