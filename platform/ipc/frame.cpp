#include "platform/ipc/frame.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>

#include "platform/ipc/ipc_codes.h"

namespace Platform::Ipc {

namespace {

constexpr Common::SourceFile kSource{"platform/ipc/frame"};

constexpr std::string_view kMagic = "objprobe";

template <class T>
unsigned char* Put(unsigned char* to, T value) {
  for (std::size_t i = 0; i < sizeof value; ++i) *to++ = static_cast<unsigned char>(value >> 8 * i);
  return to;
}

template <class T>
T Get(const unsigned char* from) {
  T value = 0;
  for (std::size_t i = 0; i < sizeof value; ++i) {
    value = static_cast<T>(value | static_cast<T>(static_cast<T>(from[i]) << 8 * i));
  }
  return value;
}

template <class T>
void Append(std::vector<unsigned char>& to, T value) {
  const std::size_t at = to.size();
  to.resize(at + sizeof value);
  Put(to.data() + at, value);
}

// What a kind of frame may be.
struct KindRule {
  Side from;  // unless it comes from both
  bool from_both;
  bool has_call;
  std::size_t shortest;  // payload
  std::size_t longest;
};

constexpr KindRule kRules[] = {
    {},
    {Side::kClient, false, false, 24, kMaxHelloFrame},              // Hello
    {Side::kServer, false, false, 12, kMaxMessageFrame},            // Welcome
    {Side::kServer, false, false, 0, kMaxMessageFrame},             // Refused
    {Side::kClient, false, true, kRequestHeadSize, kMaxPartFrame},  // Request
    {Side::kClient, false, true, 1, kMaxPartFrame},                 // RequestPart
    {Side::kServer, false, true, kReplyHeadSize, kMaxPartFrame},    // Reply
    {Side::kServer, false, true, 1, kMaxPartFrame},                 // ReplyPart
    {Side::kServer, false, true, 0, kMaxMessageFrame},              // Fault
    {Side::kClient, false, true, 0, 0},                             // Cancel
    {Side::kClient, true, false, 0, 0},                             // Ping
    {Side::kClient, true, false, 0, 0},                             // Pong
    {Side::kClient, true, false, 0, kMaxMessageFrame},              // Goodbye
};

// The part of a payload that belongs to the head.
std::size_t GetPacketHeadSize(FrameKind kind) {
  if (kind == FrameKind::kRequest) return kRequestHeadSize;
  return kind == FrameKind::kReply ? kReplyHeadSize : 0;
}

bool IsPacketPart(FrameKind kind) {
  return kind >= FrameKind::kRequest && kind <= FrameKind::kReplyPart;
}

// Reads a payload from its front.
class PayloadReader {
 public:
  explicit PayloadReader(Bytes payload) : left_(payload) {}

  template <class T>
  bool Read(T& value) {
    if (left_.size() < sizeof value) return false;
    value = Get<T>(left_.data());
    left_ = left_.subspan(sizeof value);
    return true;
  }
  bool Skip(std::string_view text) {
    if (left_.size() < text.size() || std::memcmp(left_.data(), text.data(), text.size()) != 0) {
      return false;
    }
    left_ = left_.subspan(text.size());
    return true;
  }
  bool Read(Secret& text) {
    std::uint16_t size = 0;
    if (!Read(size) || left_.size() < size) return false;
    text.Fill().assign(reinterpret_cast<const char*>(left_.data()), size);
    left_ = left_.subspan(size);
    return true;
  }
  std::size_t GetLeft() const { return left_.size(); }

 private:
  Bytes left_;
};

void AppendText(std::vector<unsigned char>& to, const std::string& text) {
  Append(to, static_cast<std::uint16_t>(text.size()));
  to.insert(to.end(), text.begin(), text.end());
}

}  // namespace

Common::Error FrameDecoder::Feed(Bytes bytes, FrameSink& sink) {
  while (!is_stopped_ && !bytes.empty()) {
    if (head_size_ < head_wanted_) {
      const std::size_t taken = std::min(bytes.size(), head_wanted_ - head_size_);
      std::memcpy(head_.data() + head_size_, bytes.data(), taken);
      head_size_ += taken;
      bytes = bytes.subspan(taken);
      if (head_size_ < head_wanted_) break;
      if (head_wanted_ == kFrameHeaderSize) {
        Common::Error error = BeginFrame();
        if (error.IsFailure()) {
          is_stopped_ = true;
          return error;
        }
        if (head_size_ < head_wanted_) continue;
      }
      if (!TakeHead(sink)) break;
    }
    if (left_ != 0 && !TakePayload(bytes, sink)) break;
    if (left_ == 0 && !EndFrame(sink)) break;
  }
  return Common::Error();
}

Common::Error FrameDecoder::BeginFrame() {
  const std::size_t length = Get<std::uint32_t>(head_.data());
  const unsigned int number = head_[4];
  call_id_ = Get<std::uint64_t>(head_.data() + 8);
  if (number == 0 || number >= std::size(kRules)) {
    return MakeError(kMalformedFrame, kSource.At("BeginFrame", 10),
                     "kind " + std::to_string(number));
  }
  const KindRule& rule = kRules[number];
  if (head_[5] != 0 || head_[6] != 0 || head_[7] != 0) {
    return MakeError(kMalformedFrame, kSource.At("BeginFrame", 20), "reserved bytes");
  }
  if ((call_id_ != 0) != rule.has_call) {
    return MakeError(kMalformedFrame, kSource.At("BeginFrame", 30), "call id");
  }
  if (length > rule.longest) {
    return MakeError(kFrameTooLong, kSource.At("BeginFrame", 40),
                     std::to_string(length) + " bytes of kind " + std::to_string(number));
  }
  if (length < rule.shortest) {
    return MakeError(kMalformedFrame, kSource.At("BeginFrame", 50), "too short");
  }
  if (!rule.from_both && rule.from != from_) {
    return MakeError(kUnexpectedFrame, kSource.At("BeginFrame", 60),
                     "kind " + std::to_string(number));
  }
  kind_ = static_cast<FrameKind>(number);
  const std::size_t further = GetPacketHeadSize(kind_);
  head_wanted_ = kFrameHeaderSize + further;
  left_ = length - further;
  return Common::Error();
}

bool FrameDecoder::TakeHead(FrameSink& sink) {
  payload_.clear();
  if (GetPacketHeadSize(kind_) == 0) return true;
  PacketStart start;
  start.call_id = call_id_;
  const unsigned char* from = head_.data() + kFrameHeaderSize;
  if (kind_ == FrameKind::kRequest) {
    start.component_id = Get<std::uint32_t>(from);
    start.method_number = Get<std::uint32_t>(from + 4);
    from += 8;
  }
  start.size = Get<std::uint64_t>(from);
  is_stopped_ = !sink.OnPacketStart(start);
  return !is_stopped_;
}

bool FrameDecoder::TakePayload(Bytes& bytes, FrameSink& sink) {
  const Bytes piece = bytes.first(std::min(bytes.size(), left_));
  bytes = bytes.subspan(piece.size());
  left_ -= piece.size();
  if (piece.empty()) return true;
  if (!IsPacketPart(kind_)) {
    // A Hello is not to leave copies of its password behind.
    if (payload_.empty()) payload_.reserve(kind_ == FrameKind::kHello ? kMaxHelloFrame : 0);
    payload_.insert(payload_.end(), piece.begin(), piece.end());
    return true;
  }
  is_stopped_ = !sink.OnPacketBytes(call_id_, piece);
  return !is_stopped_;
}

bool FrameDecoder::EndFrame(FrameSink& sink) {
  head_size_ = 0;
  head_wanted_ = kFrameHeaderSize;
  if (IsPacketPart(kind_)) return true;
  is_stopped_ = !sink.OnMessage(kind_, call_id_, payload_);
  if (kind_ == FrameKind::kHello) Wipe(payload_);
  return !is_stopped_;
}

std::size_t PutFrameHead(unsigned char* to, FrameKind kind, std::uint64_t call_id,
                         std::size_t length) {
  unsigned char* at = Put(to, static_cast<std::uint32_t>(length));
  at = Put(at, static_cast<std::uint32_t>(kind));  // with the flags and the reserved bytes
  at = Put(at, call_id);
  return static_cast<std::size_t>(at - to);
}

std::size_t PutPacketHead(unsigned char* to, FrameKind kind, const PacketStart& start,
                          std::size_t part_size) {
  unsigned char* at =
      to + PutFrameHead(to, kind, start.call_id, part_size + GetPacketHeadSize(kind));
  if (kind == FrameKind::kRequest) {
    at = Put(at, start.component_id);
    at = Put(at, start.method_number);
  }
  if (kind == FrameKind::kRequest || kind == FrameKind::kReply) at = Put(at, start.size);
  return static_cast<std::size_t>(at - to);
}

std::vector<unsigned char> EncodeHello(const Hello& hello) {
  std::vector<unsigned char> payload;
  payload.reserve(kMagic.size() + 16 + hello.user.Get().size() + hello.password.Get().size());
  for (const char c : kMagic) Append(payload, static_cast<unsigned char>(c));
  Append(payload, hello.lowest_version);
  Append(payload, hello.highest_version);
  Append(payload, hello.service_id);
  AppendText(payload, hello.user.Get());
  AppendText(payload, hello.password.Get());
  return payload;
}

bool DecodeHello(Bytes payload, Hello& hello) {
  PayloadReader reader(payload);
  return reader.Skip(kMagic) && reader.Read(hello.lowest_version) &&
         reader.Read(hello.highest_version) && reader.Read(hello.service_id) &&
         reader.Read(hello.user) && reader.Read(hello.password);
}

std::vector<unsigned char> EncodeWelcome(const Welcome& welcome) {
  std::vector<unsigned char> payload;
  Append(payload, welcome.version);
  Append(payload, welcome.connection_key);
  Append(payload, static_cast<std::uint32_t>(welcome.interfaces.size()));
  for (const InterfaceVersion& interface : welcome.interfaces) {
    Append(payload, interface.component_id);
    Append(payload, interface.version);
    Append(payload, interface.further);
  }
  return payload;
}

bool DecodeWelcome(Bytes payload, Welcome& welcome) {
  PayloadReader reader(payload);
  std::uint32_t count = 0;
  if (!reader.Read(welcome.version) || !reader.Read(welcome.connection_key) ||
      !reader.Read(count) || count > reader.GetLeft() / 12) {
    return false;
  }
  for (; count != 0; --count) {
    InterfaceVersion interface;
    reader.Read(interface.component_id);
    reader.Read(interface.version);
    reader.Read(interface.further);
    welcome.interfaces.push_back(interface);
  }
  return true;
}

std::vector<unsigned char> EncodeError(const Common::Error& error) {
  unsigned int size = 0;
  std::unique_ptr<unsigned char[]> bytes = error.Save(size);
  if (size > kMaxMessageFrame) {
    // Not what this head says, which may be what is so long.
    bytes = Common::Error(error.GetCode(), "The error is too long to be sent.",
                          kSource.At("EncodeError", 70))
                .Save(size);
  }
  return {bytes.get(), bytes.get() + size};
}

Common::Error DecodeError(Bytes payload, const Common::Error& fallback) {
  Common::Error error =
      Common::Error::Load(payload.data(), static_cast<unsigned int>(payload.size()));
  return error.IsFailure() ? error : fallback;
}

}  // namespace Platform::Ipc
