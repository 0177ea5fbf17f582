// The payload of a discovery message, what its entries refer to, and the way back to bytes.
#include <vector>

#include "fuzz/input.h"
#include "platform/someip/discovery/discovery_message.h"

namespace {

using fuzz::require;

constexpr std::size_t most_entries = 64;

/// Those options that we could have written ourselves.
std::vector<someip::Option> sendable(const someip::Discovery_message& message,
                                     const someip::Entry& entry) {
  std::vector<someip::Option> options;
  for (const auto& run : entry.runs) {
    for (std::size_t i = run.index; i < std::size_t{run.index} + run.count; ++i) {
      if (i >= message.options.size() || options.size() == 2) break;
      const auto& option = message.options[i];
      if (option.valid && option.endpoint.port != 0) options.push_back(option);
    }
  }
  return options;
}

void check_reading(const someip::Discovery_message& message) {
  for (const auto& entry : message.entries) {
    for (const bool ipv4 : {true, false}) {
      const auto options = message.options_of(entry, ipv4);
      for (const auto& endpoint : {options.udp, options.tcp}) {
        require(!endpoint || (endpoint->port != 0 && !endpoint->address.is_multicast() &&
                              endpoint->address.is_v4() == ipv4),
                "an endpoint is one of the address family");
      }
      require(!options.multicast || options.multicast->address.is_multicast(),
              "a multicast option holds a multicast address");
    }
  }
  for (const bool ipv4 : {true, false}) {
    const auto told = message.discovery_endpoint(ipv4);
    require(!told || (told->port != 0 && told->address.is_v4() == ipv4),
            "a discovery endpoint is one");
  }
}

void check_writing(const someip::Discovery_message& message) {
  someip::Discovery_writer writer;
  std::vector<someip::Entry> written;
  std::vector<std::vector<someip::Option>> options;
  for (const auto& entry : message.entries) {
    auto of_entry = sendable(message, entry);
    if (!writer.add(entry, of_entry)) break;
    written.push_back(entry);
    options.push_back(std::move(of_entry));
  }
  const auto bytes = writer.message(0x1234, message.reboot);
  require(bytes.size() <= someip::header_size + 1400, "a message fits one datagram");

  someip::Datagram_reader reader(bytes);
  const auto view = reader.next();
  require(view && !reader.next() && !reader.malformed(), "a message is one SOME/IP message");
  const auto again = someip::read_discovery_message(view->payload, most_entries);
  require(again && again->reboot == message.reboot && again->entries.size() == written.size(),
          "what was written is read");
  for (std::size_t i = 0; i < written.size(); ++i) {
    const auto& entry = again->entries[i];
    someip::Entry expected = written[i];
    expected.runs = entry.runs;
    require(entry == expected, "an entry is read as it was written");
    for (std::size_t run = 0; run < entry.runs.size(); ++run) {
      const auto& [index, count] = entry.runs[run];
      require(count == (run < options[i].size() ? 1 : 0), "an entry refers to its options");
      if (count == 0) continue;
      const auto& option = again->options.at(index);
      require(option.valid && option.type == options[i][run].type &&
                  option.protocol == options[i][run].protocol &&
                  option.endpoint == options[i][run].endpoint,
              "an option is read as it was written");
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Seeds are whole SOME/IP messages, of which this is the payload.
  const fuzz::Bytes bytes = fuzz::Input{data, size}.rest();
  if (bytes.size() < someip::header_size) return 0;
  const fuzz::Exact payload{bytes.subspan(someip::header_size)};
  const auto message = someip::read_discovery_message(payload, most_entries);
  if (!message) return 0;
  require(message->entries.size() <= most_entries, "entries have a bound");
  for (const auto& option : message->options) {
    static_cast<void>(someip::is_configuration(option.content));
  }
  check_reading(*message);
  check_writing(*message);
  return 0;
}
