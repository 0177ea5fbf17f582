/// A communication runtime without a network: the test plays the other side and decides when
/// something arrives. While one lives it is the process's runtime.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "binding/codec.h"
#include "tq/com/runtime.h"

class Fake_runtime : public tq::com::Runtime {
 public:
  Fake_runtime();
  ~Fake_runtime() override;

  // The consumed side.

  /// Gives the running search a result.
  void find(const std::vector<std::uint16_t>& instances);
  [[nodiscard]] bool searches() const { return find_handler_ != nullptr; }
  [[nodiscard]] std::size_t connections() const { return connections_; }
  [[nodiscard]] bool subscribed(const std::string& element) const {
    return notifications_.contains(element);
  }
  void notify_bytes(const std::string& element, tq::com::Payload payload);
  template <class Value>
  void notify(const std::string& element, const Value& value) {
    std::vector<std::byte> payload;
    binding::encode(value, payload);
    notify_bytes(element, payload);
  }

  // The provided side.

  [[nodiscard]] const std::string& specifier() const { return specifier_; }
  [[nodiscard]] bool offered() const { return offered_; }
  /// Payloads of a field in the order of their updates.
  [[nodiscard]] const std::vector<std::vector<std::byte>>& updates(const std::string& element) {
    return updates_[element];
  }
  void clear_updates() { updates_.clear(); }
  /// Of all updates, the records in them; each must hold one.
  template <class Record>
  std::vector<Record> published(const std::string& element) {
    std::vector<Record> records;
    for (const auto& payload : updates(element)) {
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

  tq::com::Find_token start_find_service(std::string_view service,
                                         std::optional<std::uint16_t> instance,
                                         tq::com::Find_handler handler) override;
  void stop_find_service(tq::com::Find_token token) override;
  std::unique_ptr<tq::com::Consumer> connect(const tq::com::Found_instance& instance) override;
  std::unique_ptr<tq::com::Provider> provide(std::string_view service,
                                             std::string_view specifier) override;
  std::vector<std::pair<std::string_view, std::uint64_t>> counters() const override { return {}; }

 private:
  class Consumer;
  class Provider;

  std::string service_;
  tq::com::Find_handler find_handler_;
  std::size_t connections_ = 0;
  std::map<std::string, tq::com::Notification_handler> notifications_;
  std::string specifier_;
  bool offered_ = false;
  std::map<std::string, std::vector<std::vector<std::byte>>> updates_;
};
