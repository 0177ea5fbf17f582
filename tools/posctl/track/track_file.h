/// A file that is complete after every point.
#pragma once

#include <sys/types.h>

#include <string>

#include "tools/posctl/track/track_text.h"

namespace posctl::track {

/// Writes each point and the end of the document in one call, and the next point over that end. So
/// a process that is killed leaves a complete file. Standard output gets the end by finish().
class Track_file {
 public:
  /// Makes the file; "-" is standard output. The first point replaces what an older file holds.
  /// Throws std::system_error.
  Track_file(const std::string& path, Format format);
  ~Track_file();
  Track_file(const Track_file&) = delete;
  Track_file& operator=(const Track_file&) = delete;

  /// Throws std::system_error; a file is then complete without the point. The descriptor `cancel`
  /// ends waiting for the reader of standard output once it is readable.
  void add(const Point& point, const Json& record, int cancel = -1);
  void interrupt() { text_.interrupt(); }
  /// Throws std::system_error.
  void finish();

 private:
  void write(const std::string& piece, const std::string& old_end);
  void write_at(off_t place, const std::string& text) const;

  const std::string path_;
  Track_text text_;
  int descriptor_ = -1;  ///< below 0: standard output
  bool holds_another_ = false;
  off_t end_ = 0;  ///< of the last point; the end of the document follows
};

}  // namespace posctl::track
