#pragma once

#include <cstdint>
#include <string>

#include "core/common/error.h"
#include "platform/ipc/local_socket.h"
#include "platform/ipc/unique_descriptor.h"

// TCP, underneath TLS.

namespace Platform::Ipc {

inline constexpr std::uint16_t kDefaultPort = 7610;

struct HostAddress {
  std::string host;  // without brackets
  std::uint16_t port = kDefaultPort;
  bool is_address = false;  // digits, no name
};

// Reads host[:port], [address]:port, or an IPv6 address without a port. Throws Common::Error
// kBadAddress.
HostAddress ParseHostAddress(const std::string& text);

// Resolves the name and connects, to the addresses in their order, each of which has its share of
// the time. The connection does not block. Throws Common::Error: kUnknownHost, kConnectRefused,
// kConnectTimedOut, kConnectFailed. Returns in time even if the resolver doesn't.
UniqueDescriptor ConnectHost(const HostAddress& address, Clock::time_point deadline);

// A socket that listens, and its port. Throws Common::Error kUnknownHost, kListenFailed.
UniqueDescriptor ListenHost(const HostAddress& address, std::uint16_t& port);

// What connections of this kind are set to, also accepted ones.
void SetHostOptions(int descriptor);

// The address of the other end, for messages.
std::string GetPeerAddress(int descriptor);

// What the connections of one network have in common: the address of the other end in binary form,
// of IPv6 the first 64 bits, which is what one party usually has.
std::string GetPeerNetwork(int descriptor);

}  // namespace Platform::Ipc
