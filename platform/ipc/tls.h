#pragma once

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "core/common/error.h"
#include "core/common/non_copyable.h"

// TLS as a filter of bytes, apart from sockets and from the library that does it, which is in a
// module that is loaded with the first connection that needs it: linking it costs a process more at
// start than a small report takes.

namespace Platform::Ipc {

// One connection. On one thread at a time. A failure is final.
class TlsFilter : public Common::NonCopyable {
 public:
  enum class Step { kReady, kAgain, kFailed };

  virtual ~TlsFilter() = default;
  // Takes what the peer has sent. Throws std::bad_alloc.
  virtual void Feed(std::span<const unsigned char> bytes) = 0;
  // Goes on with the handshake as far as the bytes that came allow. kAgain: there may be output.
  virtual Step Handshake(Common::Error& error) = 0;
  // Decrypts as much as there is and fits; 0 when more has to be fed. False: nothing follows;
  // `error` says why, unless that is the peer's orderly end.
  virtual bool Read(std::span<unsigned char> to, std::size_t& size, Common::Error& error) = 0;
  // Encrypts all of the bytes. Behind the handshake.
  virtual bool Write(std::span<const unsigned char> bytes, Common::Error& error) = 0;
  // Appends what is to be sent to the peer.
  virtual void TakeOutput(std::vector<unsigned char>& to) = 0;
};

// Keys and trust, for any number of connections. Threads: any.
class TlsContext : public Common::NonCopyable {
 public:
  virtual ~TlsContext() = default;
  // Throws Common::Error, std::bad_alloc.
  virtual std::unique_ptr<TlsFilter> CreateFilter() = 0;
};

struct TlsSettings {
  bool is_server = false;
  // Client: whose certificate is asked for, a name or the digits of an address, and the PEM file of
  // the authorities that are trusted; none: those of the system.
  std::string host;
  bool host_is_address = false;
  std::string authorities_file;
  // Server: PEM files.
  std::string certificate_file;
  std::string key_file;
};

// Throws Common::Error: kNoTls, kBadPemFile. Threads: any.
std::unique_ptr<TlsContext> CreateTlsContext(const TlsSettings& settings);

// The module and its one function: owned; null and an error on failure.
inline constexpr char kTlsModule[] = "objprobe-tls.so";
using CreateTlsContextFunction = TlsContext*(const TlsSettings& settings, Common::Error& error);
inline constexpr char kCreateTlsContextSymbol[] = "ObjprobeCreateTlsContext";

}  // namespace Platform::Ipc
