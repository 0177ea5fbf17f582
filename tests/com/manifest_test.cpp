#include "platform/linux/com/manifest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <set>

#include "mw/com/runtime.h"
#include "tq/com/runtime.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;
using tq::com::parse_deployment;

json good() {
  return json::parse(R"({
    "nodes": {"one": {"address": "127.43.0.1", "watchLink": false}, "two": {"addresses": ["127.43.0.2", "127.43.0.3"]}},
    "serviceDiscovery": {"multicastAddress": "239.255.43.1"},
    "limits": {"reassemblies": 5},
    "segments": {"burst": 3},
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

std::string error_of(const std::function<void()>& work) {
  try {
    work();
  } catch (const std::exception& error) {
    return error.what();
  }
  return "nothing thrown";
}

TEST(Manifest, gives_ids_names_and_defaults) {
  const auto deployment = parse_deployment(good().dump(), "file");
  EXPECT_EQ(deployment.source, "file");
  ASSERT_EQ(deployment.nodes.size(), 2u);
  EXPECT_EQ(deployment.nodes[1].addresses.size(), 2u);
  EXPECT_FALSE(deployment.nodes[0].watch_link);
  EXPECT_TRUE(deployment.nodes[1].watch_link);
  EXPECT_EQ(deployment.discovery.port, 30490);
  EXPECT_EQ(deployment.limits.reassemblies, 5u);
  EXPECT_EQ(deployment.segments.burst, 3u);
  EXPECT_EQ(deployment.segments.pause, someip::Segment_shaping{}.pause);
  EXPECT_EQ(deployment.limits.pending_calls, someip::Limits{}.pending_calls);
  ASSERT_EQ(deployment.services.size(), 2u);
  const auto& service = deployment.services[0];
  EXPECT_EQ(service.id, 0x1234);
  EXPECT_EQ(service.minor_version, 2u);
  EXPECT_EQ(service.fields[0].notifier, 0x8002);
  EXPECT_EQ(service.instances[0].udp_port, 4001);
  EXPECT_EQ(deployment.services[1].methods[0].transport, someip::Transport::tcp);
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
      {"/nodes/one/address", 5, "nodes.one.address", "unicast IP address"},
      {"/nodes/one/addresses", json::array({"127.0.0.1"}), "nodes.one",
       "either \"address\" or \"addresses\""},
      {"/nodes/one/workers", 0, "nodes.one.workers", "a number from 1 to 64"},
      {"/nodes/one/colour", 1, "nodes.one", "no member \"colour\""},
      {"/nodes", nullptr, "the document", "a member \"nodes\""},
      {"/serviceDiscovery/multicastAddress", "10.0.0.1", "serviceDiscovery.multicastAddress",
       "multicast IP address"},
      {"/serviceDiscovery/initialDelayMinMs", 500, "serviceDiscovery",
       "initialDelayMinMs not above initialDelayMaxMs"},
      {"/serviceDiscovery/offerTtlS", 0, "serviceDiscovery.offerTtlS",
       "a number from 1 to 16777215"},
      {"/limits/reassemblies", -1, "limits.reassemblies", "a number from 1"},
      {"/limits/reassemblies", "many", "limits.reassemblies", "found \"many\""},
      {"/services/test::A/id", nullptr, "services.test::A", "a member \"id\""},
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
      {"/services/test::A/events/tick/eventGroup", nullptr, "services.test::A.events.tick",
       "a member \"eventGroup\""},
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
       "services.test::B.instances[0]", "\"tcpPort\" for what travels over TCP"},
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
    const auto text =
        error_of([&] { static_cast<void>(parse_deployment(document.dump(), "the/file.json")); });
    EXPECT_THAT(text, testing::AllOf(HasSubstr(std::string("the/file.json: ") + one.key + ": "),
                                     HasSubstr(one.expected)))
        << one.pointer;
  }
  EXPECT_THAT(error_of([] { static_cast<void>(parse_deployment("{", "f")); }),
              HasSubstr("f: not a JSON document"));
  EXPECT_THAT(error_of([] { static_cast<void>(parse_deployment(R"({"nodes": 1e999})", "f")); }),
              HasSubstr("f: not a JSON document"));
  EXPECT_THAT(error_of([] { static_cast<void>(parse_deployment(std::string(100'000, '['), "f")); }),
              HasSubstr("f: nested too deeply"));
  EXPECT_THAT(
      error_of([] { static_cast<void>(parse_deployment(R"({"nodes": {}, "nodes": {}})", "f")); }),
      HasSubstr("f: \"nodes\": expected once"));
}

/// A file that is gone after the test, and the environment of before.
class Environment : public testing::Test {
 protected:
  void TearDown() override {
    ::unsetenv("POS_MANIFEST");
    ::unsetenv("POS_NODE_ADDRESS");
    std::filesystem::remove(path_);
  }
  void write(const std::string& text) {
    std::ofstream(path_) << text;
    ::setenv("POS_MANIFEST", path_.c_str(), 1);
  }
  const std::filesystem::path path_ =
      std::filesystem::temp_directory_path() / ("manifest_test." + std::to_string(::getpid()));
};

TEST_F(Environment, names_the_manifest_and_replaces_the_address) {
  write(good().dump());
  ::setenv("POS_NODE_ADDRESS", "127.43.0.99", 1);
  const auto deployment = tq::com::load_deployment("two");
  EXPECT_EQ(deployment.source, path_.string());
  EXPECT_EQ(deployment.nodes[0].addresses.front().to_string(), "127.43.0.1");
  ASSERT_EQ(deployment.nodes[1].addresses.size(), 1u);
  EXPECT_EQ(deployment.nodes[1].addresses.front().to_string(), "127.43.0.99");
  ::setenv("POS_NODE_ADDRESS", "everywhere", 1);
  EXPECT_THAT(error_of([] { static_cast<void>(tq::com::load_deployment("two")); }),
              HasSubstr("POS_NODE_ADDRESS: expected a unicast IP address, found \"everywhere\""));
  std::filesystem::remove(path_);
  EXPECT_THAT(error_of([] { static_cast<void>(tq::com::load_deployment("two")); }),
              HasSubstr(path_.string() + ": the deployment manifest cannot be read"));
}

TEST_F(Environment, without_it_the_built_in_copy_is_in_force) {
  const auto deployment = tq::com::load_deployment();
  EXPECT_EQ(deployment.source, "built-in manifest");
  const auto has = [&](const char* name) {
    return std::ranges::any_of(deployment.services,
                               [&](const auto& service) { return service.name == name; });
  };
  EXPECT_TRUE(has("lumo::services::gnss::GNSS") && has("lumo::services::time::Time") &&
              has("lumo::services::positioning::Positioning") &&
              has("mw::dm::dem::DiagnosticMonitor"));
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
