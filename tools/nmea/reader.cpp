#include "tools/nmea/reader.h"

#include "tools/nmea/sentence.h"

namespace nmea {

void Reader::feed(std::span<const std::byte> bytes, const Sink& sink) {
  while (const auto line = framer_.next(bytes)) {
    const auto sentence = parse(*line, counters_);
    if (!sentence) continue;
    if (const auto fix = builder_.add(*sentence)) sink(*fix);
  }
}

void Reader::pause(Silence silence, const Sink& sink) {
  if (const auto fix = builder_.pause(silence)) sink(*fix);
}

void Reader::finish(const Sink& sink) {
  framer_.finish();
  if (const auto fix = builder_.finish()) sink(*fix);
}

}  // namespace nmea
