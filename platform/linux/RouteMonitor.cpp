#include "platform/linux/RouteMonitor.h"

#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>

#include <arpa/inet.h>
#include <glib-unix.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kva {
namespace {

int openNetlink(unsigned groups) {
  const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = groups;
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
  close(fd);
  return -1;
}

bool isUpWithCarrier(int anySocket, unsigned link) {
  ifreq query{};
  query.ifr_ifindex = static_cast<int>(link);
  return ioctl(anySocket, SIOCGIFNAME, &query) == 0 &&
         ioctl(anySocket, SIOCGIFFLAGS, &query) == 0 && (query.ifr_flags & IFF_UP) &&
         (query.ifr_flags & IFF_RUNNING);
}

bool isLinkLocal(int family, const std::string& address) {
  in6_addr v6{};
  if (family != AF_INET6 || address.size() != sizeof v6) return false;
  std::memcpy(&v6, address.data(), sizeof v6);
  return IN6_IS_ADDR_LINKLOCAL(&v6);
}

Route readRoute(const nlmsghdr& message) {
  Route route;
  const auto* header = static_cast<const rtmsg*>(NLMSG_DATA(&message));
  auto left = static_cast<int>(RTM_PAYLOAD(&message));
  for (const rtattr* one = RTM_RTA(header); RTA_OK(one, left); one = RTA_NEXT(one, left)) {
    const std::string value(static_cast<const char*>(RTA_DATA(one)), RTA_PAYLOAD(one));
    if (one->rta_type == RTA_OIF && value.size() == sizeof route.link)
      std::memcpy(&route.link, value.data(), sizeof route.link);
    else if (one->rta_type == RTA_PREFSRC)
      route.source = value;
    else if (one->rta_type == RTA_GATEWAY)
      route.gateway = value;
  }
  return route;
}

/// Asks the kernel for the route to one address. The query sends no packet.
std::optional<Route> routeTo(int netlink, int family, const char* destination) {
  struct {
    nlmsghdr header{};
    rtmsg route{};
    rtattr attribute{};
    unsigned char address[sizeof(in6_addr)]{};
  } query;
  inet_pton(family, destination, query.address);
  const unsigned size = family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr);
  query.attribute.rta_type = RTA_DST;
  query.attribute.rta_len = static_cast<unsigned short>(RTA_LENGTH(size));
  query.route.rtm_family = static_cast<unsigned char>(family);
  query.route.rtm_dst_len = static_cast<unsigned char>(size * 8);
  query.header.nlmsg_type = RTM_GETROUTE;
  query.header.nlmsg_flags = NLM_F_REQUEST;
  query.header.nlmsg_len = NLMSG_LENGTH(sizeof(rtmsg)) + query.attribute.rta_len;
  if (send(netlink, &query, query.header.nlmsg_len, 0) < 0) return std::nullopt;

  alignas(nlmsghdr) char bytes[4096];
  const ssize_t received = recv(netlink, bytes, sizeof bytes, 0);
  const auto& answer = *reinterpret_cast<const nlmsghdr*>(bytes);
  if (received < 0 || !NLMSG_OK(&answer, static_cast<unsigned>(received)) ||
      answer.nlmsg_type != RTM_NEWROUTE ||
      static_cast<const rtmsg*>(NLMSG_DATA(&answer))->rtm_type != RTN_UNICAST)
    return std::nullopt;
  Route route = readRoute(answer);
  if (route.source.empty() || isLinkLocal(family, route.source) ||
      !isUpWithCarrier(netlink, route.link))
    return std::nullopt;
  return route;
}

}  // namespace

std::vector<Route> routesToInternet() {
  const int netlink = openNetlink(0);
  if (netlink < 0) return {Route{}};
  std::vector<Route> routes;
  // Addresses reserved for documentation: only a default route leads there.
  for (const auto& [family, address] :
       {std::pair{AF_INET, "203.0.113.1"}, {AF_INET6, "2001:db8:ffff::1"}})
    if (auto route = routeTo(netlink, family, address)) routes.push_back(*std::move(route));
  close(netlink);
  return routes;
}

RouteMonitor::RouteMonitor(std::function<void()> changed)
    : changed_(std::move(changed)),
      messages_(openNetlink(RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE |
                            RTMGRP_IPV6_IFADDR | RTMGRP_IPV6_ROUTE)) {
  if (messages_ < 0) return;
  watch_ = g_unix_fd_add(
      messages_, G_IO_IN,
      [](int, GIOCondition, gpointer self) -> gboolean {
        static_cast<RouteMonitor*>(self)->drain();
        return G_SOURCE_CONTINUE;
      },
      this);
}

RouteMonitor::~RouteMonitor() {
  for (const unsigned source : {watch_, settling_})
    if (source) g_source_remove(source);
  if (messages_ >= 0) close(messages_);
}

/// The kernel sends a message before the change is complete, and none for the IPv4 routes that
/// disappear with a link. So this ignores the contents and reads the routes 50 ms later, once for a
/// burst of messages.
void RouteMonitor::drain() {
  constexpr unsigned kMillisecondsToSettle = 50;
  char bytes[4096];
  while (recv(messages_, bytes, sizeof bytes, MSG_DONTWAIT) >= 0 || errno == ENOBUFS) {
  }
  if (settling_) return;
  settling_ = g_timeout_add(
      kMillisecondsToSettle,
      [](gpointer self) -> gboolean {
        static_cast<RouteMonitor*>(self)->settling_ = 0;
        static_cast<RouteMonitor*>(self)->update();
        return G_SOURCE_REMOVE;
      },
      this);
}

void RouteMonitor::update() {
  auto routes = routesToInternet();
  if (std::exchange(routes_, routes) != routes) changed_();
}

}  // namespace kva
