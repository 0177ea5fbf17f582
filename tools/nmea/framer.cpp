#include "tools/nmea/framer.h"

namespace nmea {

Counters& Counters::operator+=(const Counters& other) {
  sentences += other.sentences;
  other_sentences += other.other_sentences;
  noise_bytes += other.noise_bytes;
  comment_lines += other.comment_lines;
  too_long += other.too_long;
  bad_character += other.bad_character;
  incomplete += other.incomplete;
  checksum_missing += other.checksum_missing;
  checksum_mismatch += other.checksum_mismatch;
  malformed_field += other.malformed_field;
  duplicates += other.duplicates;
  contradictions += other.contradictions;
  incomplete_groups += other.incomplete_groups;
  for (std::size_t index = 0; index < types.size(); ++index) {
    types.at(index).understood += other.types.at(index).understood;
    types.at(index).ignored += other.types.at(index).ignored;
    types.at(index).broken += other.types.at(index).broken;
  }
  return *this;
}

std::optional<std::string_view> Framer::next(std::span<const std::byte>& input) {
  for (std::size_t at = 0; at < input.size(); ++at) {
    const char c = static_cast<char>(input[at]);
    const bool line_end = c == '\n' || c == '\r';
    switch (state_) {
      case State::comment:
        if (line_end) state_ = State::outside;
        break;

      case State::outside:
        if (c == '$') {
          state_ = State::sentence;
          length_ = 0;
        } else if (c == '#' && at_line_start_) {
          state_ = State::comment;
          ++counters_.comment_lines;
        } else if (!line_end) {
          ++counters_.noise_bytes;
        }
        break;

      case State::sentence:
        if (c == '$' && length_ >= 3 && line_[length_ - 3] == '*') {
          // A checksum before it: only the line end has been lost.
          state_ = State::outside;
          input = input.subspan(at);
          return std::string_view(line_.data(), length_);
        }
        if (c == '$') {
          ++counters_.incomplete;
          length_ = 0;
        } else if (line_end) {
          state_ = State::outside;
          at_line_start_ = true;
          if (length_ == 0) {
            ++counters_.incomplete;
            break;
          }
          input = input.subspan(at + 1);
          return std::string_view(line_.data(), length_);
        } else if (c < ' ' || c > '~') {
          ++counters_.bad_character;
          state_ = State::outside;
        } else if (length_ == max_length) {
          ++counters_.too_long;
          state_ = State::outside;
        } else {
          line_[length_++] = c;
        }
        break;
    }
    at_line_start_ = line_end;
  }
  input = {};
  return std::nullopt;
}

void Framer::finish() {
  if (state_ == State::sentence) ++counters_.incomplete;
  state_ = State::outside;
  at_line_start_ = true;
}

}  // namespace nmea
