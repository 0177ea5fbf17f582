/// A handler call deferred by a received message.
#pragma once

#include <boost/container/small_vector.hpp>
#include <memory>

namespace someip {

class Task {
 public:
  virtual ~Task() = default;
  virtual void run() = 0;
};

/// Handler calls in the order of arrival. Receivers fill the list while they hold the order of
/// their socket; the calls run afterwards.
using Tasks = boost::container::small_vector<std::shared_ptr<Task>, 8>;

}  // namespace someip
