#include "tools/posctl/doctor/packet_filter.h"

#include <algorithm>
#include <boost/asio/ip/network_v4.hpp>
#include <set>
#include <tuple>

#include "tools/posctl/doctor/programs.h"

namespace posctl::doctor {

namespace {

using Json = nlohmann::json;

/// Does the right side of a match cover this value?
bool covers(const Json& right, const Json& value) {
  if (right.is_object() && right.contains("set")) {
    return std::ranges::any_of(right["set"], [&](const Json& one) { return covers(one, value); });
  }
  if (right.is_object() && right.contains("range") && value.is_number()) {
    return right["range"][0] <= value && value <= right["range"][1];
  }
  if (right.is_object() && right.contains("prefix") && value.is_string()) {
    boost::system::error_code error;
    const auto address = boost::asio::ip::make_address_v4(value.get<std::string>(), error);
    const auto net =
        boost::asio::ip::make_address_v4(right["prefix"]["addr"].get<std::string>(), error);
    if (error) return true;
    const auto length = right["prefix"]["len"].get<unsigned short>();
    return boost::asio::ip::network_v4(address, length).canonical() ==
           boost::asio::ip::network_v4(net, length).canonical();
  }
  return right.is_object() || right == value;
}

/// Can the flow fulfil the match? Unknown conditions count as fulfilled.
bool fulfils(const Flow& flow, const Json& match) {
  const Json& left = match["left"];
  const bool inverted = match.value("op", "==") == "!=";
  const auto compare = [&](const Json& value) { return covers(match["right"], value) != inverted; };
  if (left.contains("meta") && left["meta"].value("key", "") == "l4proto")
    return compare(flow.udp ? "udp" : "tcp");
  if (!left.contains("payload")) return true;
  const std::string protocol = left["payload"].value("protocol", "");
  const std::string field = left["payload"].value("field", "");
  if (protocol == (flow.udp ? "tcp" : "udp")) return false;
  if (field == "dport" && flow.destination_port != 0) return compare(flow.destination_port);
  if (field == "sport" && flow.source_port != 0) return compare(flow.source_port);
  if (field == "saddr" && !flow.source.empty()) return compare(flow.source);
  if (field == "daddr" && !flow.destination.empty()) return compare(flow.destination);
  if (protocol == "ip" && field == "protocol") return compare(flow.udp ? "udp" : "tcp");
  return protocol != "icmp" && protocol != "icmpv6";
}

bool drops(const Json& rule) {
  return std::ranges::any_of(
      rule["expr"], [](const Json& one) { return one.contains("drop") || one.contains("reject"); });
}

}  // namespace

Packet_filter Packet_filter::read() {
  Packet_filter filter;
  const Json parsed = Json::parse(output_of({"nft", "-j", "list", "ruleset"}), nullptr, false);
  if (parsed.is_discarded() || !parsed.contains("nftables")) return filter;
  filter.readable_ = true;
  using Chain = std::tuple<std::string, std::string, std::string>;
  std::set<Chain> others;  // chains that see outgoing packets only
  const auto chain_of = [](const Json& object, const char* name) {
    return Chain{object.value("family", ""), object.value("table", ""), object.value(name, "")};
  };
  for (const Json& item : parsed["nftables"]) {
    if (item.contains("chain")) {
      const std::string hook = item["chain"].value("hook", "");
      if (hook == "output" || hook == "postrouting" || hook == "forward")
        others.insert(chain_of(item["chain"], "name"));
    }
    if (item.contains("rule") && drops(item["rule"]) &&
        !others.contains(chain_of(item["rule"], "chain"))) {
      filter.rules_.push_back(item["rule"]);
    }
  }
  return filter;
}

std::optional<Packet_filter::Rule> Packet_filter::dropping(const Flow& flow) const {
  for (const Json& rule : rules_) {
    const bool concerned = std::ranges::all_of(rule["expr"], [&](const Json& one) {
      return !one.contains("match") || fulfils(flow, one["match"]);
    });
    if (!concerned) continue;
    const std::string table = rule.value("family", "") + " " + rule.value("table", "");
    const std::string chain = rule.value("chain", "");
    const std::string handle = std::to_string(rule.value("handle", 0));
    return Rule{"chain " + chain + " of table " + table + ", handle " + handle,
                "nft delete rule " + table + " " + chain + " handle " + handle};
  }
  return std::nullopt;
}

}  // namespace posctl::doctor
