#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "platform/ipc/frame.h"
#include "platform/ipc/unique_descriptor.h"

namespace Platform::Ipc::Test {

// The end of a connection that does what a test says, byte by byte.
class RawPeer {
 public:
  using Buffer = std::vector<unsigned char>;

  explicit RawPeer(UniqueDescriptor socket) : socket_(std::move(socket)) {}

  static sockaddr_un MakeAddress(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
  }
  static RawPeer Connect(const std::string& path) {
    UniqueDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = MakeAddress(path);
    if (::connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      socket.Reset();
    }
    return RawPeer(std::move(socket));
  }
  static UniqueDescriptor Listen(const std::string& path) {
    UniqueDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = MakeAddress(path);
    if (::bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(socket.Get(), 10) != 0) {
      socket.Reset();
    }
    return socket;
  }

  explicit operator bool() const { return static_cast<bool>(socket_); }
  void Close() { socket_.Reset(); }

  // False when the other end is gone.
  bool Send(const Buffer& bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
      const ssize_t size =
          ::send(socket_.Get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (size <= 0) return false;
      sent += static_cast<std::size_t>(size);
    }
    return true;
  }
  bool SendFrame(FrameKind kind, std::uint64_t call_id, const Buffer& payload = {}) {
    return Send(MakeFrame(kind, call_id, payload));
  }
  static Buffer MakeFrame(FrameKind kind, std::uint64_t call_id, const Buffer& payload = {}) {
    Buffer bytes(kFrameHeaderSize);
    PutFrameHead(bytes.data(), kind, call_id, payload.size());
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return bytes;
  }
  static Buffer MakeHello(std::uint32_t service_id) {
    Hello hello;
    hello.service_id = service_id;
    return MakeFrame(FrameKind::kHello, 0, EncodeHello(hello));
  }
  static Buffer MakeWelcome(std::uint32_t version = kTransportVersion, std::uint32_t key = 5) {
    Welcome welcome;
    welcome.version = version;
    welcome.connection_key = key;
    return MakeFrame(FrameKind::kWelcome, 0, EncodeWelcome(welcome));
  }

  struct Frame {
    FrameKind kind{};
    std::uint64_t call_id = 0;
    Buffer payload;
  };
  // The next frame but heartbeats; none at the end, or when none comes for a long time.
  std::optional<Frame> Receive() {
    for (;;) {
      Buffer head = Read(kFrameHeaderSize);
      if (head.size() < kFrameHeaderSize) return std::nullopt;
      Frame frame;
      frame.kind = static_cast<FrameKind>(head[4]);
      for (int i = 7; i >= 0; --i)
        frame.call_id = frame.call_id << 8 | head[8 + static_cast<std::size_t>(i)];
      const std::size_t size = head[0] | static_cast<std::size_t>(head[1]) << 8 |
                               static_cast<std::size_t>(head[2]) << 16;
      frame.payload = Read(size);
      if (frame.payload.size() < size) return std::nullopt;
      if (frame.kind == FrameKind::kPong) ++pongs_;
      if (frame.kind != FrameKind::kPing && frame.kind != FrameKind::kPong) return frame;
    }
  }
  // How many have come among the frames.
  int GetPongs() const { return pongs_; }
  // Everything up to the end.
  Buffer ReadAll() {
    Buffer all;
    for (Buffer byte = Read(1); !byte.empty(); byte = Read(1)) all.push_back(byte[0]);
    return all;
  }
  // Reads up to the end. False if it doesn't come for a long time.
  bool WaitForEnd() {
    for (;;) {
      unsigned char ignored[4096];
      if (!WaitReadable()) return false;
      if (::recv(socket_.Get(), ignored, sizeof ignored, 0) <= 0) return true;
    }
  }

 private:
  bool WaitReadable() {
    pollfd waiting{socket_.Get(), POLLIN, 0};
    return ::poll(&waiting, 1, 20'000) == 1;
  }
  Buffer Read(std::size_t size) {
    Buffer bytes(size);
    std::size_t got = 0;
    while (got < size) {
      if (!WaitReadable()) break;
      const ssize_t more = ::recv(socket_.Get(), bytes.data() + got, size - got, 0);
      if (more <= 0) break;
      got += static_cast<std::size_t>(more);
    }
    bytes.resize(got);
    return bytes;
  }

  UniqueDescriptor socket_;
  int pongs_ = 0;
};

}  // namespace Platform::Ipc::Test
