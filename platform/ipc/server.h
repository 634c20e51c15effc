#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "core/common/error.h"
#include "core/common/non_copyable.h"

// The serving end of the transport (docs/transport.md): what a service program hands in, and what
// it gets. All callbacks come on threads of the elastic pool, never on the one that does the input
// and output, so that each of them may block.

namespace Platform::Ipc {

// Who is at the other end of a connection.
struct Peer {
  bool is_local = false;
  std::string user;     // that was authenticated; of a local peer, the number of its user
  std::string address;  // for messages
};

// One call of a client. Shared, as the service may answer long after it was told; one that is
// dropped without an answer is answered by an error. Threads: any.
class ServerCall : public Common::NonCopyable {
 public:
  virtual ~ServerCall() = default;

  virtual std::uint32_t GetComponentId() const = 0;
  virtual std::uint32_t GetMethodNumber() const = 0;
  // As it came; nothing of it was looked at.
  virtual const std::vector<unsigned char>& GetPacket() const = 0;

  // Answers the call, with a packet or with an error in its place. The first answer counts; after
  // the call was cancelled or the connection is gone there is none, and these do nothing. When
  // there is no memory for the answer, the connection ends in its place; nothing is thrown. Reply
  // alone throws std::bad_alloc, and the call is then still to be answered.
  virtual void Reply(std::vector<unsigned char> packet) = 0;
  // The same of a packet that somebody else holds, and `owner` keeps: a large one need not be
  // copied. False when the client won't get it: the call is over, or there is no room for the
  // packet, and an error goes in its place.
  virtual bool ReplyShared(std::shared_ptr<const void> owner, const unsigned char* packet,
                           std::size_t size) = 0;
  virtual void Fail(const Common::Error& error) = 0;

  // `callback` is called once when the client has cancelled the call or the connection is gone, at
  // once when that has happened before, and is dropped when the call is answered. At most one.
  virtual void SetCancelCallback(std::function<void()> callback) = 0;
};

// What a service keeps for one connection.
class Session : public Common::NonCopyable {
 public:
  // Behind OnClosed, when no other operation runs any more.
  virtual ~Session() = default;
  // A call has come. Several may run at once, in no particular order.
  virtual void OnCall(std::shared_ptr<ServerCall> call) = 0;
  // The connection is gone: no call comes after this, those that are open have been told, and
  // every OnCall has returned. So one that waits has to be woken by its cancel callback.
  virtual void OnClosed() = 0;
};

struct InterfaceVersion {
  std::uint32_t component_id = 0;
  std::uint32_t version = 0;
  std::uint32_t further = 0;
};

// The services of a program. Threads: any, several at once.
class ServiceHost : public Common::NonCopyable {
 public:
  virtual ~ServiceHost() = default;
  // Whether a remote peer is who it says. Only some are asked at a time, and others wait for them,
  // so that the check may take its time, but a refusal must not be delayed here: the transport does
  // so (Limits::refusal), and keeps nobody waiting.
  virtual bool Authenticate(const std::string& user, const std::string& password,
                            const std::string& address) = 0;
  // A session of the service with that number, whose interfaces go to `interfaces`; null, and an
  // error, to refuse it. Null without an error: there is no such service (kUnknownService).
  virtual std::unique_ptr<Session> Open(unsigned int service_id, const Peer& peer,
                                        std::vector<InterfaceVersion>& interfaces,
                                        Common::Error& error) = 0;
};

// What a peer may cost and how long it may be silent.
struct Limits {
  std::size_t max_request_size = std::size_t{64} << 20;  // bytes of a request packet
  std::size_t max_reply_size = std::size_t{1} << 30;     // bytes of a reply packet
  std::size_t max_input = std::size_t{256} << 20;        // bytes of its open requests, together
  std::size_t max_calls = 1024;                          // open on one connection
  std::size_t max_connections = 1024;
  std::size_t max_output = std::size_t{1} << 30;  // bytes that wait for one peer to take them
  std::chrono::milliseconds handshake{10'000};    // from the connection to its welcome
  std::chrono::milliseconds refusal{1'000};       // from a login that fails to its refusal
  std::chrono::milliseconds heartbeat{15'000};    // of silence before a ping
  std::chrono::milliseconds idle{45'000};         // of silence before the peer is given up
  std::chrono::milliseconds answer{60'000};       // that a client's thread waits for an answer
};

// Listens for clients. Made, told to listen and stopped on one thread.
class Server : public Common::NonCopyable {
 public:
  // The host is borrowed until Stop has returned.
  static std::unique_ptr<Server> Create(ServiceHost& host, const Limits& limits = {});
  virtual ~Server() = default;  // stops

  // Listens for clients of this computer that want the service: on its socket in the runtime
  // directory, which is made if it is missing. Throws Common::Error with the system's reason.
  virtual void ListenLocal(unsigned int service_id) = 0;
  // Listens for clients of other computers, over TLS; `address` is host:port or [host]:port, port 0
  // for any. Returns the port. Certificate chain and key are PEM files. Throws Common::Error.
  virtual std::uint16_t ListenTls(const std::string& address, const std::string& certificate_file,
                                  const std::string& key_file) = 0;

  // Takes no more clients, tells those that are there goodbye, ends their calls and closes the
  // sessions. Returns when no callback runs any more. Doesn't fail: what there is no memory for is
  // tried again until there is. The second call does nothing.
  virtual void Stop() = 0;
};

}  // namespace Platform::Ipc
