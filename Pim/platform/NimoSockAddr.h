// Socket addresses of the SCTP backends: endpoints to sockaddr_in6 (IPv4 as mapped
// addresses, the one-socket-for-both-families scheme of SctpPam) and back.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>

#include "Pim/platform/Nimo.h"

namespace Nimo::Sctp {

inline sockaddr_in6 toSockAddr6(const Endpoint& e) noexcept {
  sockaddr_in6 sa{};
  sa.sin6_family = AF_INET6;
  sa.sin6_port = htons(e.port);
  if (e.addr.af() == AddressFamily::ipv4) {
    sa.sin6_addr.s6_addr[10] = 0xff;
    sa.sin6_addr.s6_addr[11] = 0xff;
    std::memcpy(&sa.sin6_addr.s6_addr[12], e.addr.bytes(), 4);
  } else if (e.addr.af() == AddressFamily::ipv6) {
    std::memcpy(&sa.sin6_addr, e.addr.bytes(), 16);
    sa.sin6_scope_id = e.scopeId;
  }
  return sa;
}

// AF_INET, or AF_INET6 with a mapped IPv4 address unmapped.
inline Endpoint fromSockAddr(const sockaddr* sa) noexcept {
  Endpoint e;
  if (sa->sa_family == AF_INET) {
    sockaddr_in s4;
    std::memcpy(&s4, sa, sizeof s4);
    e.addr = IpGenAddr(AddressFamily::ipv4, reinterpret_cast<const std::uint8_t*>(&s4.sin_addr));
    e.port = ntohs(s4.sin_port);
  } else if (sa->sa_family == AF_INET6) {
    sockaddr_in6 s6;
    std::memcpy(&s6, sa, sizeof s6);
    const std::uint8_t* b = s6.sin6_addr.s6_addr;
    static constexpr std::uint8_t kMapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    e.addr = std::memcmp(b, kMapped, 12) == 0 ? IpGenAddr(AddressFamily::ipv4, b + 12)
                                              : IpGenAddr(AddressFamily::ipv6, b);
    e.port = ntohs(s6.sin6_port);
    e.scopeId = s6.sin6_scope_id;
  }
  return e;
}

// The association state of an SCTP_ASSOC_CHANGE notification. The two stacks number the
// states differently, so each backend passes its own values of SCTP_COMM_UP,
// SCTP_RESTART, SCTP_COMM_LOST, SCTP_SHUTDOWN_COMP and SCTP_CANT_STR_ASSOC, in that order.
inline std::optional<AssocState> assocStateOf(unsigned state, const unsigned (&codes)[5]) noexcept {
  constexpr AssocState kStates[] = {AssocState::Up, AssocState::Restarted, AssocState::Lost,
                                    AssocState::ShutDown, AssocState::CantStart};
  for (std::size_t i = 0; i < 5; ++i) {
    if (codes[i] == state) return kStates[i];
  }
  return std::nullopt;
}

}  // namespace Nimo::Sctp
