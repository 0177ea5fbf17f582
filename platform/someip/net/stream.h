/// A connection, as its senders see it.
#pragma once

#include "platform/someip/wire/message.h"

namespace someip {

/// A connection that sends whole messages.
class Stream {
 public:
  virtual ~Stream() = default;
  /// Queues a message and returns at once. A reader that is too slow loses the connection.
  virtual void send(const Header& header, Bytes payload) = 0;
};

}  // namespace someip
