/// A communication runtime without a network: the test plays the other side, decides when something
/// arrives and sees what was offered and sent.
#pragma once

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "binding/codec.h"
#include "tests/support/played_runtime.h"

class Fake_runtime final : public Played_runtime {
 public:
  using Bytes = std::vector<std::uint8_t>;

  // The consumed side: one service at a time, on the test's thread.

  void notify_bytes(const std::string& element, tq::com::Payload payload) {
    notifications_.at(element)(payload);
  }
  template <class Value>
  void notify(const std::string& element, const Value& value) {
    std::vector<std::byte> payload;
    binding::encode(value, payload);
    notify_bytes(element, payload);
  }

  // The provided side, from any thread. Providing the instance "Unknown" fails.

  /// Specifiers of the instances that are offered.
  [[nodiscard]] std::vector<std::string> offered() const;
  /// Calls a method (or the getter of a field) of a provided instance; `specifier` must be known.
  tq::com::Response call(std::string_view specifier,
                         const std::string& element,
                         const Bytes& arguments);
  /// Payloads of the notifications that an instance sent while it was offered.
  [[nodiscard]] std::vector<Bytes> sent(std::string_view specifier) const;
  /// Called within each sending, on the sender's thread. Set it before there are senders.
  std::function<void()> on_send;
  /// Called by the end of a subscription that comes next, while its handler still is.
  std::function<void()> on_unsubscribe;
  /// Called by the provider that is closed next.
  std::function<void()> on_close;

  /// The records that updates of a field have published; each update must hold one.
  template <class Record>
  std::vector<Record> published(const std::string& element) {
    std::vector<Record> records;
    const std::lock_guard lock{mutex_};
    for (const auto& payload : updates_[ids_of(element).notifier.value()]) {
      std::vector<Record> one;
      binding::Cursor cursor{payload};
      binding::decode(cursor, one);
      if (one.size() != 1 || cursor.position() != payload.size()) {
        throw std::logic_error{"update of " + element + " is not a vector of one record"};
      }
      records.push_back(one.front());
    }
    return records;
  }
  void clear_updates() {
    const std::lock_guard lock{mutex_};
    updates_.clear();
  }

  std::unique_ptr<tq::com::Consumer> connect(const tq::com::Found_instance& instance) override;
  std::unique_ptr<tq::com::Provider> provide(std::string_view service,
                                             std::string_view specifier) override;

 private:
  static tq::com::Element_ids ids_of(std::string_view element);

  class Consumer;
  class Provider;
  struct Instance {
    std::map<std::uint16_t, tq::com::Method_handler> handlers;
    std::vector<Bytes> sent;
    bool is_offered = false;
    std::size_t running = 0;  ///< calls in progress
  };

  std::map<std::string, tq::com::Notification_handler> notifications_;
  std::map<std::uint16_t, std::vector<std::vector<std::byte>>> updates_;  ///< by notifier
  mutable std::mutex mutex_;  ///< guards updates_ and instances_
  std::condition_variable idle_;
  std::map<std::string, Instance, std::less<>> instances_;
};
