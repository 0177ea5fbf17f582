/// Addresses, interfaces, multicast, buffers, packet filter.
#include <ifaddrs.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <system_error>

#include "app/application_instance.h"
#include "platform/someip/net/udp_socket.h"
#include "tools/posctl/doctor/checks.h"

namespace posctl::doctor {

namespace {

struct Interface {
  std::string name;
  unsigned flags = 0;
};

/// The interface that has the address; on the loopback network every address is the machine's.
std::optional<Interface> interface_of(const someip::Address& address) {
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) return std::nullopt;
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, freeifaddrs);
  for (const ifaddrs* at = list; at != nullptr; at = at->ifa_next) {
    if (at->ifa_addr == nullptr) continue;
    const auto family = at->ifa_addr->sa_family;
    if (family != (address.is_v4() ? AF_INET : AF_INET6)) continue;
    someip::Socket_address known;
    std::memcpy(known.data(), at->ifa_addr,
                family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6));
    if (known.endpoint().address == address) return Interface{at->ifa_name, at->ifa_flags};
  }
  if (!address.is_loopback()) return std::nullopt;
  for (const ifaddrs* at = list; at != nullptr; at = at->ifa_next) {
    if ((at->ifa_flags & IFF_LOOPBACK) != 0) return Interface{at->ifa_name, at->ifa_flags};
  }
  return std::nullopt;
}

/// The application is, or should be, on this machine.
bool application_is_here(const Facts& facts) {
  return facts.program(Role::application) != nullptr || !facts.after;
}

std::string interface_name(const someip::Address& address) {
  const auto found = interface_of(address);
  return found ? found->name : "<interface>";
}

}  // namespace

void check_address(const Facts& facts, Findings& findings) {
  const auto address = facts.application_address();
  if (!address || !application_is_here(facts) || interface_of(*address)) return;
  findings.fault(
      "no interface of this machine has the application's address " + address->to_string(),
      "getifaddrs() does not list it",
      "ip address add " + address->to_string() + "/" +
          std::to_string(facts.application_prefix_length()) +
          " dev <interface>, or POS_NODE_ADDRESS=<address of this machine>");
}

void check_address_taken(const Facts& facts, Findings& findings) {
  const auto address = facts.application_address();
  if (!address || !address->is_v4() || !application_is_here(facts)) return;
  const auto look = [&](std::uint16_t port) {
    const auto owner = owner_of_udp_port(address->to_v4().to_uint(), port);
    if (!owner || owner->pid == 0) return;
    if (std::ranges::find(facts.programs_later, owner->pid, &Program::pid) !=
            facts.programs_later.end() &&
        std::ranges::find(facts.programs_later, owner->pid, &Program::pid)->role ==
            Role::application) {
      return;
    }
    findings.fault("another program has the application's address and port " +
                       address->to_string() + ":" + std::to_string(port),
                   owner->label + " has it in /proc/net/udp",
                   "kill " + std::to_string(owner->pid) +
                       ", or give it an address of its own: POS_NODE_ADDRESS");
  };
  look(facts.deployment->discovery.port);
  for (const auto& service : facts.deployment->services) {
    for (const auto& instance : service.instances) {
      if (instance.node == application_node &&
          service.name.find("::Positioning") != std::string::npos && instance.udp_port) {
        look(*instance.udp_port);
      }
    }
  }
}

void check_interface(const Facts& facts, Findings& findings) {
  const auto address = facts.application_address();
  if (!address || !application_is_here(facts)) return;
  const auto interface = interface_of(*address);
  if (!interface) return;
  if ((interface->flags & IFF_UP) == 0) {
    findings.fault("the interface " + interface->name + " of the application's address is down",
                   "getifaddrs() lists " + address->to_string() + " on it without the flag UP",
                   "ip link set dev " + interface->name + " up");
  } else if ((interface->flags & IFF_RUNNING) == 0) {
    findings.fault("the interface " + interface->name + " of the application's address has no link",
                   "getifaddrs() lists it without the flag RUNNING",
                   "plug in the cable or the other side; ip link show dev " + interface->name);
  }
}

void check_multicast_route(const Facts& facts, Findings& findings) {
  const auto address = facts.application_address();
  if (!address || !interface_of(*address)) return;
  const auto& group = facts.deployment->discovery.multicast_address;
  someip::Udp_socket socket(*address);
  if (socket.bind({*address, 0})) return;
  if (const auto error = socket.multicast_from(*address); error) return;
  const someip::Socket_address to({group, facts.deployment->discovery.port});
  if (::connect(socket.descriptor(), to.data(), to.size()) == 0) return;
  findings.fault(
      "the machine has no route to the multicast group " + group.to_string(),
      "sending from " + address->to_string() + " fails: " + std::generic_category().message(errno),
      "ip route replace " + group.to_string() + "/32 dev " + interface_name(*address));
}

void check_multicast_join(const Facts& facts, Findings& findings) {
  const auto address = facts.application_address();
  if (!address) return;
  const auto interface = interface_of(*address);
  if (!interface || (interface->flags & IFF_UP) == 0) return;
  const auto& group = facts.deployment->discovery.multicast_address;
  someip::Udp_socket socket(*address);
  if (const auto error = socket.join(group, *address)) {
    const bool too_many = error == std::errc::no_buffer_space;
    findings.fault("the machine refuses to join the multicast group " + group.to_string() + " on " +
                       interface->name,
                   "joining it fails: " + error.message(),
                   too_many ? "sysctl net.ipv4.igmp_max_memberships=20"
                            : "ip link set dev " + interface->name + " multicast on");
  } else if ((interface->flags & (IFF_MULTICAST | IFF_LOOPBACK)) == 0) {
    findings.fault("the interface " + interface->name + " does not carry multicast",
                   "getifaddrs() lists it without the flag MULTICAST",
                   "ip link set dev " + interface->name + " multicast on");
  }
}

void check_receive_buffer(const Facts& facts, Findings& findings) {
  constexpr std::uint64_t least = 128 * 1024;
  constexpr const char* cure = "sysctl net.core.rmem_max=4194304, then restart the application";
  std::uint64_t allowed = least;
  std::ifstream("/proc/sys/net/core/rmem_max") >> allowed;
  if (allowed < least) {
    findings.fault("the kernel allows small receive buffers only",
                   "net.core.rmem_max is " + std::to_string(allowed) + " bytes", cure);
  }
  if (facts.dropped_after <= facts.dropped_before) return;
  findings.fault("the kernel drops datagrams because the application's receive buffer is full",
                 std::to_string(facts.dropped_after - facts.dropped_before) +
                     " while doctor looked (column drops of /proc/net/udp)",
                 cure);
}

void check_packet_filter(const Facts& facts, Findings& findings) {
  const auto own = facts.application_address();
  const auto* const wanted = facts.gnss();
  if (!own || wanted == nullptr || !facts.no_positions()) return;
  const auto& discovery = facts.deployment->discovery;
  const std::string source = facts.source_address ? facts.source_address->to_string() : "";
  const auto look = [&](const char* what, const Flow& flow) {
    const auto rule = facts.filter.dropping(flow);
    if (!rule) return false;
    findings.fault(std::string("the packet filter of this machine drops ") + what,
                   "no positions arrive, and the rule in " + rule->place + " covers these packets",
                   rule->cure);
    return true;
  };
  const auto discovery_port = discovery.port;
  if (facts.usable_gnss_offer() == nullptr || facts.application_mute()) {
    if (look("the multicast of service discovery",
             {source, discovery.multicast_address.to_string(), discovery_port, discovery_port})) {
      return;
    }
  }
  if (look("the answers of service discovery",
           {source, own->to_string(), discovery_port, discovery_port})) {
    return;
  }
  for (const auto& instance : wanted->instances) {
    if (instance.udp_port &&
        look("the positions of the source", {source, own->to_string(), *instance.udp_port, 0})) {
      return;
    }
  }
}

}  // namespace posctl::doctor
