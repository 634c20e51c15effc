#include "platform/ipc/host_socket.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "platform/ipc/ipc_codes.h"

namespace Platform::Ipc {

namespace {

constexpr Common::SourceFile kSource{"platform/ipc/host_socket"};

constexpr int kBacklog = 128;

struct AddressListDeleter {
  void operator()(addrinfo* list) const { ::freeaddrinfo(list); }
};
using AddressList = std::unique_ptr<addrinfo, AddressListDeleter>;

// 0, or the resolver's failure; for EAI_SYSTEM also errno.
struct Resolution {
  AddressList list;
  int failure = 0;
  int errnum = 0;
};

Resolution Resolve(const HostAddress& address, int flags) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = flags | AI_NUMERICSERV;
  if (address.is_address) hints.ai_flags |= AI_NUMERICHOST;
  addrinfo* list = nullptr;
  Resolution result;
  result.failure = ::getaddrinfo(address.host.empty() ? nullptr : address.host.c_str(),
                                 std::to_string(address.port).c_str(), &hints, &list);
  result.errnum = errno;
  if (result.failure == 0) result.list.reset(list);
  return result;
}

// The resolver can't be told when to give up, so it gets a thread that may be left behind. That one
// touches nothing but this.
struct PendingResolution {
  std::mutex mutex;
  std::condition_variable end;
  bool has_ended = false;
  Resolution resolution;
};

Resolution ResolveInTime(const HostAddress& address, Clock::time_point deadline) {
  if (address.is_address) return Resolve(address, 0);
  const auto pending = std::make_shared<PendingResolution>();
  try {
    std::thread([pending, address] {
      Resolution resolution = Resolve(address, 0);
      const std::lock_guard lock(pending->mutex);
      pending->resolution = std::move(resolution);
      pending->has_ended = true;
      pending->end.notify_one();
    }).detach();
  } catch (const std::system_error& failure) {
    throw MakeSystemError(kNoResources, failure.code().value(), kSource.At("ResolveInTime", 10));
  }
  std::unique_lock lock(pending->mutex);
  if (!pending->end.wait_until(lock, deadline, [&] { return pending->has_ended; })) {
    throw MakeReasonedError(kConnectTimedOut, "The resolver did not answer in time.",
                            kSource.At("ResolveInTime", 20), address.host);
  }
  return std::move(pending->resolution);
}

Common::Error MakeResolverError(const Resolution& resolution, const HostAddress& address,
                                const Common::LineTag& tag) {
  if (resolution.failure == EAI_SYSTEM) {
    return MakeSystemError(kUnknownHost, resolution.errnum, tag, address.host);
  }
  return MakeReasonedError(kUnknownHost, ::gai_strerror(resolution.failure), tag, address.host);
}

int GetMilliseconds(Clock::duration time) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(time).count();
  return static_cast<int>(std::clamp<long long>(left, 0, 3'600'000));
}

// 0 or an errno.
int ConnectAddress(const addrinfo& to, Clock::time_point deadline, UniqueDescriptor& result) {
  result = UniqueDescriptor(
      ::socket(to.ai_family, to.ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, to.ai_protocol));
  if (!result) return errno;
  if (::connect(result.Get(), to.ai_addr, to.ai_addrlen) == 0) return 0;
  if (errno != EINPROGRESS && errno != EINTR) return errno;
  for (;;) {
    pollfd waiting{result.Get(), POLLOUT, 0};
    const int ready = ::poll(&waiting, 1, GetMilliseconds(deadline - Clock::now()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) return errno;
    if (ready == 0) return ETIMEDOUT;
    int failure = 0;
    socklen_t size = sizeof failure;
    if (::getsockopt(result.Get(), SOL_SOCKET, SO_ERROR, &failure, &size) != 0) return errno;
    return failure;
  }
}

const IpcFailure& GetConnectFailure(int errnum) {
  if (errnum == ECONNREFUSED) return kConnectRefused;
  return errnum == ETIMEDOUT ? kConnectTimedOut : kConnectFailed;
}

bool ParsePort(std::string_view text, std::uint16_t& port) {
  const char* const end = text.data() + text.size();
  const auto [at, failure] = std::from_chars(text.data(), end, port);
  return failure == std::errc() && at == end;
}

bool IsAddress(const std::string& host) {
  unsigned char ignored[sizeof(in6_addr)];
  return ::inet_pton(AF_INET, host.c_str(), ignored) == 1 ||
         ::inet_pton(AF_INET6, host.c_str(), ignored) == 1;
}

}  // namespace

HostAddress ParseHostAddress(const std::string& text) {
  HostAddress result;
  const auto fail = [&](std::uint32_t line) {
    return MakeError(kBadAddress, kSource.At("ParseHostAddress", line), text);
  };
  // The last colon, unless it is one of an IPv6 address.
  std::size_t colon = text.rfind(':');
  if (text.starts_with('[')) {
    const std::size_t close = text.find(']');
    if (close == std::string::npos) throw fail(30);
    result.host = text.substr(1, close - 1);
    if (result.host.find(':') == std::string::npos) throw fail(40);
    if (close + 1 == text.size()) {
      colon = std::string::npos;
    } else if (text[close + 1] != ':') {
      throw fail(50);
    } else {
      colon = close + 1;
    }
  } else if (colon != std::string::npos && text.find(':') != colon) {
    colon = std::string::npos;
    result.host = text;
  } else {
    result.host = text.substr(0, colon);
  }
  if (colon != std::string::npos &&
      !ParsePort(std::string_view(text).substr(colon + 1), result.port)) {
    throw fail(60);
  }
  result.is_address = IsAddress(result.host);
  if (result.host.find(':') != std::string::npos && !result.is_address) throw fail(70);
  // No name has these, and they would be cut at a 0.
  for (const char c : result.host) {
    if (static_cast<unsigned char>(c) <= ' ' || c == '\x7f') throw fail(80);
  }
  return result;
}

UniqueDescriptor ConnectHost(const HostAddress& address, Clock::time_point deadline) {
  if (address.host.empty() || address.port == 0) {
    throw MakeError(kBadAddress, kSource.At("ConnectHost", 90), address.host);
  }
  const Resolution resolution = ResolveInTime(address, deadline);
  if (resolution.failure != 0) {
    throw MakeResolverError(resolution, address, kSource.At("ConnectHost", 100));
  }
  int left = 0;
  for (const addrinfo* at = resolution.list.get(); at != nullptr; at = at->ai_next) ++left;
  int failure = ENOENT;
  for (const addrinfo* at = resolution.list.get(); at != nullptr; at = at->ai_next, --left) {
    const Clock::time_point now = Clock::now();
    if (now >= deadline && failure != ENOENT) break;
    UniqueDescriptor result;
    failure = ConnectAddress(*at, now + (deadline - now) / left, result);
    if (failure == 0) {
      SetHostOptions(result.Get());
      return result;
    }
  }
  throw MakeSystemError(GetConnectFailure(failure), failure, kSource.At("ConnectHost", 110),
                        address.host + ":" + std::to_string(address.port));
}

UniqueDescriptor ListenHost(const HostAddress& address, std::uint16_t& port) {
  const Resolution resolution = Resolve(address, AI_PASSIVE);
  if (resolution.failure != 0) {
    throw MakeResolverError(resolution, address, kSource.At("ListenHost", 120));
  }
  int failure = ENOENT;
  for (const addrinfo* at = resolution.list.get(); at != nullptr; at = at->ai_next) {
    UniqueDescriptor result(
        ::socket(at->ai_family, at->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, at->ai_protocol));
    const int on = 1;
    // A server that starts again doesn't wait for the connections of the former one.
    if (!result || ::setsockopt(result.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        ::bind(result.Get(), at->ai_addr, at->ai_addrlen) != 0 ||
        ::listen(result.Get(), kBacklog) != 0) {
      failure = errno;
      continue;
    }
    sockaddr_storage bound{};
    socklen_t size = sizeof bound;
    ::getsockname(result.Get(), reinterpret_cast<sockaddr*>(&bound), &size);
    port = ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6&>(bound).sin6_port
                                             : reinterpret_cast<sockaddr_in&>(bound).sin_port);
    return result;
  }
  throw MakeSystemError(kListenFailed, failure, kSource.At("ListenHost", 130),
                        address.host + ":" + std::to_string(address.port));
}

void SetHostOptions(int descriptor) {
  const int on = 1;
  // Frames are written whole.
  ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  ::setsockopt(descriptor, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
}

std::string GetPeerAddress(int descriptor) {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  char host[NI_MAXHOST];
  char port[NI_MAXSERV];
  if (::getpeername(descriptor, reinterpret_cast<sockaddr*>(&address), &size) != 0 ||
      ::getnameinfo(reinterpret_cast<sockaddr*>(&address), size, host, sizeof host, port,
                    sizeof port, NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
    return "unknown";
  }
  return address.ss_family == AF_INET6 ? std::string("[").append(host).append("]:").append(port)
                                       : std::string(host).append(":").append(port);
}

std::string GetPeerNetwork(int descriptor) {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  if (::getpeername(descriptor, reinterpret_cast<sockaddr*>(&address), &size) != 0)
    return "unknown";
  if (address.ss_family != AF_INET6) {
    const in_addr& four = reinterpret_cast<const sockaddr_in&>(address).sin_addr;
    return {reinterpret_cast<const char*>(&four), sizeof four};
  }
  const in6_addr& six = reinterpret_cast<const sockaddr_in6&>(address).sin6_addr;
  const char* const bytes = reinterpret_cast<const char*>(six.s6_addr);
  return IN6_IS_ADDR_V4MAPPED(&six) ? std::string(bytes + 12, 4) : std::string(bytes, 8);
}

}  // namespace Platform::Ipc
