#include "platform/linux/com/json_document.h"

#include <set>
#include <stdexcept>
#include <utility>
#include <vector>

namespace tq::com {

namespace {

/// Levels of objects and lists; more than a manifest has, few enough for functions that visit them
/// by recursion.
constexpr int deepest_document = 32;
/// Members of one object. The document finds a member by comparing one name after the other.
constexpr std::size_t most_members = 4096;

/// Watches the parser read the document.
class Parser_watch {
 public:
  using Event = nlohmann::json::parse_event_t;

  explicit Parser_watch(const std::string& source) : source_(source) {}

  void parsed(int depth, Event event, const Json_reader::Json& value) {
    if (depth > deepest_document) throw std::runtime_error(source_ + ": nested too deeply");
    switch (event) {
      case Event::object_start:
      case Event::array_start:
        levels_.push_back({place(), event == Event::array_start, 0, {}, {}});
        break;
      case Event::key:
        add_key(value.get<std::string>());
        break;
      case Event::object_end:
      case Event::array_end:
        levels_.pop_back();
        [[fallthrough]];
      case Event::value:
        if (!levels_.empty()) ++levels_.back().index;
        break;
    }
  }

 private:
  /// An object or a list that has begun and not ended.
  struct Level {
    std::string place;
    bool list = false;
    std::size_t index = 0;       ///< of the next element of a list
    std::string key;             ///< of the member that comes
    std::set<std::string> keys;  ///< of an object
  };

  /// Where the next value stands, as errors name it.
  [[nodiscard]] std::string place() const {
    if (levels_.empty()) return "";
    const Level& last = levels_.back();
    if (last.list) return last.place + "[" + std::to_string(last.index) + "]";
    return last.place + (last.place.empty() ? "" : ".") + last.key;
  }

  void add_key(std::string key) {
    Level& object = levels_.back();
    object.key = std::move(key);
    if (!object.keys.insert(object.key).second) fail("expected once in its object, found twice");
    if (object.keys.size() > most_members) {
      fail("expected at most " + std::to_string(most_members) + " members, found more");
    }
  }
  [[noreturn]] void fail(const std::string& what) const {
    throw std::runtime_error(source_ + ": " + place() + ": " + what);
  }

  const std::string& source_;
  std::vector<Level> levels_;
};

}  // namespace

Json_reader::Json parse_document(std::string_view text, const std::string& source) {
  Parser_watch watch(source);
  try {
    return Json_reader::Json::parse(
        text, [&](int depth, Parser_watch::Event event, const Json_reader::Json& parsed) {
          watch.parsed(depth, event, parsed);
          return true;
        });
  } catch (const nlohmann::json::exception& error) {  // also a number that nothing can hold
    throw std::runtime_error(source + ": not a JSON document: " + error.what());
  }
}

}  // namespace tq::com
