#include "platform/linux/com/manifest.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

#include "ara/core/initialization.h"
#include "mw/com/runtime.h"
#include "tests/support/error_of.h"
#include "tests/support/temporary_folder.h"
#include "tq/com/runtime.h"

namespace {

using nlohmann::json;
using test::error_of;
using testing::AllOf;
using testing::HasSubstr;

json good() {
  return json::parse(R"({
    "nodes": {"one": {"address": "127.43.0.1", "clientId": "0x0010", "watchLink": false}, "two": {"addresses": ["127.43.0.2", "127.43.0.3"]}},
    "serviceDiscovery": {"multicastAddress": "239.255.43.1"},
    "limits": {"reassemblies": 5},
    "services": {
      "test::A": {"id": "0x1234", "majorVersion": 1, "minorVersion": 2,
        "methods": {"go": {"id": 1}},
        "events": {"tick": {"id": "0x8001", "eventGroup": 1}},
        "fields": {"state": {"getter": 2, "setter": 3, "notifier": "0x8002", "eventGroup": 2}},
        "instances": [{"id": 1, "specifier": "a", "node": "one", "udpPort": 4001}]},
      "test::B": {"id": "0x1235", "majorVersion": 1, "minorVersion": 0,
        "methods": {"go": {"id": 1, "transport": "tcp"}},
        "instances": [{"id": 1, "specifier": "b", "node": "two", "tcpPort": 4001}]}
    }
  })");
}

std::string error_in(const std::string& document) {
  return error_of([&] { static_cast<void>(tq::com::parse_deployment(document, "the/file.json")); });
}

TEST(Manifest, errors_name_the_file_the_key_and_what_was_expected) {
  struct Case {
    const char* pointer;  ///< where
    json value;           ///< what is put there; null: it is removed
    const char* key;
    const char* expected;
  };
  const Case cases[] = {
      {"/nodes/one/address", "127.0.0", "nodes.one.address",
       "expected a unicast IP address, found \"127.0.0\""},
      {"/nodes/one/address", "239.0.0.1", "nodes.one.address", "unicast IP address"},
      {"/nodes/one/addresses", json::array({"127.0.0.1"}), "nodes.one",
       "either \"address\" or \"addresses\""},
      {"/nodes/one/address", "255.255.255.255", "nodes.one.address", "unicast IP address"},
      {"/nodes/two",
       json::object({{"address", "10.43.7.255"}, {"prefixLength", 24}, {"clientId", 2}}),
       "nodes.two.address", "not the broadcast address of a /24 subnet, found \"10.43.7.255\""},
      {"/nodes/one/address", "127.43.0.3", "nodes.two.addresses[1]",
       "an address that is not used yet by nodes.one.address, found \"127.43.0.3\""},
      {"/nodes/two/addresses/1", "127.43.0.2", "nodes.two.addresses[1]",
       "an address that is not used yet by nodes.two.addresses[0]"},
      {"/nodes/two/addresses/1", "fd00::2", "nodes.two.addresses[1]",
       "an IPv4 address, as the group of service discovery (239.255.43.1) is one, found"},
      {"/serviceDiscovery/multicastAddress", "ff05::43", "nodes.one.address",
       "an IPv6 address, as the group"},
      {"/nodes/two/clientId", "0x0010", "nodes.two.clientId",
       "a client id that is not used yet by nodes.one.clientId, found \"0x0010\""},
      {"/serviceDiscovery/multicastAddress", "10.0.0.1", "serviceDiscovery.multicastAddress",
       "multicast IP address"},
      {"/serviceDiscovery/initialDelayMinMs", 500, "serviceDiscovery",
       "initialDelayMinMs not above initialDelayMaxMs"},
      {"/serviceDiscovery/offerTtlS", 0, "serviceDiscovery.offerTtlS",
       "a number from 1 to 16777215"},
      {"/serviceDiscovery/subscribeTtlS", 1, "serviceDiscovery.subscribeTtlS",
       "more than cyclicOfferDelayMs, 1000 ms, found 1"},
      {"/serviceDiscovery/longestOfferTtlS", 1, "serviceDiscovery.longestOfferTtlS",
       "more than cyclicOfferDelayMs, 1000 ms, found 1"},
      {"/serviceDiscovery/cyclicOfferDelayMs", 3000, "serviceDiscovery.cyclicOfferDelayMs",
       "less than offerTtlS, 3 s, found 3000"},
      {"/services/test::A/id", "0x1235", "services.test::B",
       "a service id that is not used yet by services.test::A"},
      {"/services/test::A/id", "0xFFFF", "services.test::A.id", "a number from 1 to 65533"},
      {"/services/test::A/methods/go/id", 2, "services.test::A.fields.state",
       "a method id that is not used yet by services.test::A.methods.go"},
      {"/services/test::A/methods/go/id", "0x8001", "services.test::A.methods.go.id",
       "a number from 1 to 32767"},
      {"/services/test::A/events/tick/id", 7, "services.test::A.events.tick.id",
       "a number from 32768"},
      {"/services/test::A/events/tick/id", "0x8002", "services.test::A.fields.state",
       "an event id that is not used yet"},
      {"/services/test::A/events/go", json::object({{"id", 0x8005}, {"eventGroup", 1}}),
       "services.test::A.events.go", "a name that is not used yet by services.test::A.methods.go"},
      {"/services/test::A/fields/state", json::object(), "services.test::A.fields.state",
       "a getter, a setter or a notifier"},
      {"/services/test::A/instances/0/node", "three", "services.test::A.instances[0].node",
       "the name of one of the nodes"},
      {"/services/test::A/instances/0/udpPort", 30490, "services.test::A.instances[0].udpPort",
       "a port other than that of service discovery"},
      {"/services/test::A/instances/0/udpPort", nullptr, "services.test::A.instances[0]",
       "\"udpPort\" or \"tcpPort\""},
      {"/services/test::B/instances/0",
       json::object({{"id", 1}, {"specifier", "b"}, {"node", "two"}, {"udpPort", 1}}),
       "services.test::B.instances[0]", "\"tcpPort\" for the elements over TCP"},
      {"/services/test::B/methods/go/transport", "carrier pigeon",
       "services.test::B.methods.go.transport", "\"udp\" or \"tcp\""},
      {"/services/test::B/instances/0/specifier", "a", "services.test::B",
       "an instance specifier other than \"a\", which services.test::A has"},
      {"/services/test::A/instances/1",
       json::object({{"id", 2}, {"specifier", "c"}, {"node", "one"}, {"udpPort", 4001}}),
       "services.test::A.instances[1]",
       "a port that services.test::A.instances[0] of this service does not use"},
      {"/services/test::A/instances/0/multicast",
       json::array({{{"eventGroup", 9}, {"address", "239.0.0.1"}, {"port", 1}, {"threshold", 1}}}),
       "services.test::A.instances[0].multicast[0]", "an event group of the service"},
      {"/services/test::A/instances/0/multicast",
       json::array({{{"eventGroup", 1}, {"address", "ff05::1"}, {"port", 1}, {"threshold", 1}}}),
       "services.test::A.instances[0].multicast[0].address", "an IPv4 address"},
      {"/services/test::A/allowedPeers", json::array({"nobody"}),
       "services.test::A.allowedPeers[0]", "unicast IP address"},
  };
  for (const auto& one : cases) {
    json document = good();
    const json::json_pointer pointer(one.pointer);
    if (one.value.is_null()) {
      document.at(pointer.parent_pointer()).erase(pointer.back());
    } else {
      document[pointer] = one.value;
    }
    EXPECT_THAT(
        error_in(document.dump()),
        AllOf(HasSubstr(std::string("the/file.json: ") + one.key + ": "), HasSubstr(one.expected)))
        << one.pointer;
  }
  const std::string not_json = "the/file.json: not a JSON document";
  EXPECT_THAT(error_in("{"), HasSubstr(not_json));
  EXPECT_THAT(error_in(R"({"nodes": 1e999})"), HasSubstr(not_json));
  EXPECT_THAT(error_in(std::string(100'000, '[')), HasSubstr("the/file.json: nested too deeply"));
  EXPECT_THAT(error_in(R"({"nodes": {}, "services": [1, {"a": {"b": 1}, "c": 2, "a": 3}]})"),
              "the/file.json: services[1].a: expected once in its object, found twice");
  std::string members;
  for (int i = 0; i < 5000; ++i)
    members += (i == 0 ? "{\"" : ",\"") + std::to_string(i) + "\":0";
  EXPECT_THAT(error_in(members + "}"), HasSubstr("4096: expected at most 4096 members"));
}

TEST(Manifest, gives_an_id_of_its_own_to_each_node_that_names_none) {
  auto document = good();
  document["nodes"]["one"]["clientId"] = 2;
  document["nodes"]["zero"] = json{{"address", "127.43.0.9"}};
  document["nodes"]["three"] = json{{"address", "127.43.0.8"}};
  document["serviceDiscovery"]["offerTtlS"] = 0xFFFFFF;  // is never renewed
  for (const auto* key : {"subscribeTtlS", "longestOfferTtlS"})
    document["serviceDiscovery"][key] = 3601;
  document["serviceDiscovery"]["cyclicOfferDelayMs"] = 3'600'000;
  std::set<std::uint16_t> ids;
  for (const auto& node : tq::com::parse_deployment(document.dump(), "file").nodes)
    ids.insert(node.client_id);
  EXPECT_THAT(ids, testing::ElementsAre(1, 2, 3, 4));
}

class Environment : public testing::Test {
 protected:
  void TearDown() override {
    ::unsetenv("POS_MANIFEST");
    ::unsetenv("POS_NODE_ADDRESS");
  }
  void write(const std::string& text) {
    std::ofstream(path_) << text;
    ::setenv("POS_MANIFEST", path_.c_str(), 1);
  }
  /// The addresses of the nodes, joined.
  static std::string addresses() {
    std::string all;
    for (const auto& node : tq::com::load_deployment("two").nodes) {
      for (const auto& address : node.addresses)
        all += address.to_string() + " ";
    }
    return all;
  }

  Temporary_folder folder_;
  const std::filesystem::path path_ = folder_ / "manifest.json";
};

TEST_F(Environment, of_the_application_decides_and_not_that_of_another_one) {
  write(good().dump());
  ara::core::Initialize({.name = "other"});
  EXPECT_THAT(error_of([] { static_cast<void>(tq::com::load_deployment()); }),
              AllOf(HasSubstr("variable OTHER_MANIFEST names none"),
                    HasSubstr("/share/other/manifest.json\"")));
  const std::string brought = good().dump();
  ara::core::Initialize({.name = "other", .manifest = brought});
  EXPECT_EQ(tq::com::load_deployment().source, "built-in manifest");
  ara::core::Initialize({.name = "pos", .node = "POS"});
  EXPECT_EQ(tq::com::load_deployment().source, path_.string());
}

TEST_F(Environment, names_the_manifest_and_replaces_the_address) {
  write(good().dump());
  EXPECT_EQ(tq::com::load_deployment("two").source, path_.string());
  EXPECT_EQ(addresses(), "127.43.0.1 127.43.0.2 127.43.0.3 ");
  EXPECT_FALSE(tq::com::load_deployment().nodes[0].watch_link);
  ::setenv("POS_NODE_ADDRESS", "127.43.0.99", 1);
  EXPECT_EQ(addresses(), "127.43.0.1 127.43.0.99 ");
  for (const auto& [text, expected] : {std::pair{"everywhere", "a unicast IP address"},
                                       {"127.255.255.255", "a unicast IP address"},
                                       {"fd00::1", "an address of the family of 239.255.43.1"},
                                       {"127.43.0.1", "an address that nodes.one"}}) {
    ::setenv("POS_NODE_ADDRESS", text, 1);
    EXPECT_THAT(error_of(addresses), AllOf(HasSubstr("POS_NODE_ADDRESS: expected "),
                                           HasSubstr(expected), HasSubstr(text)));
    EXPECT_NO_THROW(static_cast<void>(tq::com::load_deployment())) << "no node, no address";
  }
}

TEST_F(Environment, what_is_no_readable_manifest_is_named_and_does_not_hang) {
  const auto pipe = folder_ / "pipe";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  const auto large = folder_ / "large";
  write(good().dump());
  std::filesystem::copy_file(path_, large);
  std::filesystem::resize_file(large, (1U << 20U) + 1);
  const auto loop = folder_ / "loop";
  std::filesystem::create_symlink(loop, loop);
  for (const auto& [path, found] :
       {std::pair{folder_ / "none", "No such file or directory"},
        {folder_ / "", "expected a regular file, found a folder"},
        {pipe, "expected a regular file, found a pipe"},
        {std::filesystem::path("/dev/zero"), "expected a regular file, found a device"},
        {large, "expected at most 1048576 bytes, found more"},
        {loop, "Too many levels of symbolic links"}}) {
    ::setenv("POS_MANIFEST", path.c_str(), 1);
    EXPECT_EQ(error_of(addresses),
              path.string() + ": the deployment manifest cannot be read: " + found);
  }
  write(good().dump() + std::string((1U << 20U) - good().dump().size(), ' '));
  EXPECT_NO_THROW(static_cast<void>(addresses())) << "the largest";
  if (::geteuid() == 0) return;  // may read everything
  ::chmod(path_.c_str(), 0);
  EXPECT_THAT(error_of(addresses), HasSubstr("cannot be read: Permission denied"));
}

TEST_F(Environment, one_component_exists_at_a_time_and_a_passive_one_does_nothing) {
  write(good().dump());
  EXPECT_THROW(tq::com::Runtime::instance(), std::logic_error);
  {
    const mw::com::runtime::Component_singleton component("one", false);
    EXPECT_THROW(mw::com::runtime::Component_singleton("two", false), std::logic_error);
    EXPECT_NO_THROW(static_cast<void>(tq::com::Runtime::instance().provide("test::A", "a")));
  }
  const mw::com::runtime::Component_singleton passive("one", true);
  EXPECT_THROW(static_cast<void>(tq::com::Runtime::instance().provide("test::A", "a")),
               std::logic_error);
  EXPECT_TRUE(tq::com::Runtime::instance().counters().empty());
}

}  // namespace
