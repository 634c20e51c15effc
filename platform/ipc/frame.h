#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "core/common/error.h"
#include "core/common/non_copyable.h"
#include "core/common/secret.h"
#include "platform/ipc/server.h"

// The frames of docs/transport.md: bytes in, frames out, and back. Nothing here knows sockets.

namespace Platform::Ipc {

using Common::Secret;
using Common::Wipe;

using Bytes = std::span<const unsigned char>;

enum class FrameKind : unsigned char {
  kHello = 1,
  kWelcome = 2,
  kRefused = 3,
  kRequest = 4,
  kRequestPart = 5,
  kReply = 6,
  kReplyPart = 7,
  kFault = 8,
  kCancel = 9,
  kPing = 10,
  kPong = 11,
  kGoodbye = 12,
};

inline constexpr std::size_t kFrameHeaderSize = 16;
inline constexpr std::size_t kRequestHeadSize = 16;  // in front of the first part of a packet
inline constexpr std::size_t kReplyHeadSize = 8;
inline constexpr std::size_t kMaxHeadSize = kFrameHeaderSize + kRequestHeadSize;

// Bytes of a payload.
inline constexpr std::size_t kMaxPartFrame = std::size_t{256} << 10;
inline constexpr std::size_t kMaxMessageFrame = std::size_t{64} << 10;
inline constexpr std::size_t kMaxHelloFrame = std::size_t{4} << 10;

inline constexpr std::uint32_t kTransportVersion = 1;

enum class Side { kClient, kServer };

// How a packet begins: `size` is that of the whole packet. A reply has neither component nor
// method.
struct PacketStart {
  std::uint64_t call_id = 0;
  std::uint32_t component_id = 0;
  std::uint32_t method_number = 0;
  std::uint64_t size = 0;
};

// Takes what a decoder has found. False from any operation stops the decoder for good.
class FrameSink : public Common::NonCopyable {
 public:
  virtual ~FrameSink() = default;
  // A frame that is no part of a packet. The payload is valid during the call.
  virtual bool OnMessage(FrameKind kind, std::uint64_t call_id, Bytes payload) = 0;
  // A packet begins; its bytes come by OnPacketBytes, in pieces of any size above 0. How many have
  // come in all is not looked at.
  virtual bool OnPacketStart(const PacketStart& start) = 0;
  virtual bool OnPacketBytes(std::uint64_t call_id, Bytes bytes) = 0;
};

// Splits what one side has sent into frames, however it is cut. Memory: at most a message's
// payload, and never more than has come.
class FrameDecoder : public Common::NonCopyable {
 public:
  // `from`: the side that sends.
  explicit FrameDecoder(Side from) : from_(from) {}
  ~FrameDecoder() { Wipe(payload_); }

  // A failure (kMalformedFrame, kFrameTooLong, kUnexpectedFrame) is final: nothing may be fed then.
  // Throws std::bad_alloc.
  Common::Error Feed(Bytes bytes, FrameSink& sink);

 private:
  Common::Error BeginFrame();
  // What a full head means. False: stop.
  bool TakeHead(FrameSink& sink);
  // As much of the payload as there is.
  bool TakePayload(Bytes& bytes, FrameSink& sink);
  bool EndFrame(FrameSink& sink);

  const Side from_;
  bool is_stopped_ = false;
  std::array<unsigned char, kMaxHeadSize> head_{};
  std::size_t head_size_ = 0;                   // bytes of `head_` that have come
  std::size_t head_wanted_ = kFrameHeaderSize;  // with the front of a packet's first frame
  FrameKind kind_{};
  std::uint64_t call_id_ = 0;
  std::size_t left_ = 0;                // of the payload, behind the head
  std::vector<unsigned char> payload_;  // of a message
};

// Writes the head of a frame at `to`, with room for kMaxHeadSize, and gives its size. `length` is
// that of the payload, which for a packet's first frame has the rest of the head in it.
std::size_t PutFrameHead(unsigned char* to, FrameKind kind, std::uint64_t call_id,
                         std::size_t length);
std::size_t PutPacketHead(unsigned char* to, FrameKind kind, const PacketStart& start,
                          std::size_t part_size);

struct Hello {
  std::uint32_t lowest_version = kTransportVersion;
  std::uint32_t highest_version = kTransportVersion;
  std::uint32_t service_id = 0;
  Secret user;
  Secret password;
};

struct Welcome {
  std::uint32_t version = kTransportVersion;
  std::uint32_t connection_key = 0;
  std::vector<InterfaceVersion> interfaces;
};

// Payloads. That of a Hello holds the password and is to be wiped. Reading gives false for a
// payload that is malformed.
std::vector<unsigned char> EncodeHello(const Hello& hello);
bool DecodeHello(Bytes payload, Hello& hello);
std::vector<unsigned char> EncodeWelcome(const Welcome& welcome);
bool DecodeWelcome(Bytes payload, Welcome& welcome);

// The byte form of an error; of one that is too long for a message only the code is left.
std::vector<unsigned char> EncodeError(const Common::Error& error);
// The error of a payload; `fallback` when it holds none.
Common::Error DecodeError(Bytes payload, const Common::Error& fallback);

}  // namespace Platform::Ipc
