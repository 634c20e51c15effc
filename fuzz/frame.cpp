// Frames of the transport: what is found doesn't depend on how the bytes are cut, nothing is found
// behind a failure, a message is written as it was read, and so are a Hello, a Welcome and an
// error.

#include "platform/ipc/frame.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/fuzz_target.h"

using namespace Platform::Ipc;

namespace {

class Sink final : public FrameSink {
 public:
  bool OnMessage(FrameKind kind, std::uint64_t call_id, Bytes payload) override {
    EndPart();
    text.append("\nmessage ").append(std::to_string(static_cast<int>(kind)));
    text.append(" ").append(std::to_string(call_id)).append(" ");
    text.append(reinterpret_cast<const char*>(payload.data()), payload.size());
    Fuzz::Require((call_id != 0) == (kind == FrameKind::kFault || kind == FrameKind::kCancel),
                  "a call has a number, and nothing else has");
    Check(kind, payload);
    return true;
  }
  bool OnPacketStart(const PacketStart& start) override {
    EndPart();
    text.append("\npacket ").append(std::to_string(start.call_id));
    text.append(" ").append(std::to_string(start.component_id));
    text.append(" ").append(std::to_string(start.method_number));
    text.append(" ").append(std::to_string(start.size));
    return true;
  }
  bool OnPacketBytes(std::uint64_t call_id, Bytes bytes) override {
    Fuzz::Require(!bytes.empty() && bytes.size() <= kMaxPartFrame, "pieces have bytes");
    if (part_of_ != call_id) text.append("\npart of ").append(std::to_string(call_id)).append(" ");
    part_of_ = call_id;
    text.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    return true;
  }

  std::string text;

 private:
  void EndPart() { part_of_ = 0; }

  static void RequireFront(const std::vector<unsigned char>& written, Bytes payload,
                           const char* property) {
    Fuzz::Require(written.size() <= payload.size() &&
                      std::memcmp(written.data(), payload.data(), written.size()) == 0,
                  property);
  }
  static void Check(FrameKind kind, Bytes payload) {
    if (kind == FrameKind::kHello) {
      Hello hello;
      if (DecodeHello(payload, hello)) {
        RequireFront(EncodeHello(hello), payload, "a Hello is written as it was read");
      }
    } else if (kind == FrameKind::kWelcome) {
      Welcome welcome;
      if (DecodeWelcome(payload, welcome)) {
        RequireFront(EncodeWelcome(welcome), payload, "a Welcome is written as it was read");
      }
    } else if (!payload.empty()) {
      const Common::Error error = DecodeError(payload, Common::Error());
      Fuzz::Require(EncodeError(error).size() <= kMaxMessageFrame, "an error fits into its frame");
    }
  }

  std::uint64_t part_of_ = 0;
};

// Everything that is found in the bytes, `step` at a time, and the code at the end.
std::string Decode(Side from, Bytes bytes, std::size_t step) {
  FrameDecoder decoder(from);
  Sink sink;
  while (!bytes.empty()) {
    const std::size_t size = std::min(step, bytes.size());
    const Common::Error error = decoder.Feed(bytes.first(size), sink);
    bytes = bytes.subspan(size);
    if (!error.IsFailure()) continue;
    sink.text.append("\nfailure ").append(std::to_string(error.GetCode()));
    const std::size_t found = sink.text.size();
    decoder.Feed(bytes, sink);
    Fuzz::Require(sink.text.size() == found, "nothing is found behind a failure");
    break;
  }
  return sink.text;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  // Which side sends, and how many bytes come at a time.
  const Side from = data[0] % 2 == 0 ? Side::kClient : Side::kServer;
  const std::size_t step = 1 + data[1] % 64;
  const Bytes bytes(data + 2, size - 2);
  Fuzz::RequireEqual(Decode(from, bytes, step), Decode(from, bytes, bytes.size() + 1),
                     "the same is found however the bytes are cut");
  return 0;
}
