#include "platform/ipc/frame.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "platform/ipc/ipc_codes.h"

// The bytes of docs/transport.md, written out by hand.

namespace Platform::Ipc {
namespace {

using Buffer = std::vector<unsigned char>;

// Writes down what a decoder finds, a packet's bytes together whatever the pieces.
class RecordingSink final : public FrameSink {
 public:
  bool OnMessage(FrameKind kind, std::uint64_t call_id, Bytes payload) override {
    Write("message " + std::to_string(static_cast<int>(kind)) + " " + std::to_string(call_id) +
          ":");
    Append(payload);
    return kind != stop_at;
  }
  bool OnPacketStart(const PacketStart& start) override {
    Write("packet " + std::to_string(start.call_id) + " " + std::to_string(start.component_id) +
          " " + std::to_string(start.method_number) + " " + std::to_string(start.size));
    return true;
  }
  bool OnPacketBytes(std::uint64_t call_id, Bytes bytes) override {
    if (last_bytes_of_ != call_id) Write("bytes of " + std::to_string(call_id) + ":");
    last_bytes_of_ = call_id;
    Append(bytes);
    return true;
  }

  std::string text;
  FrameKind stop_at{};

 private:
  void Write(const std::string& line) {
    last_bytes_of_ = 0;
    text.append("\n").append(line);
  }
  void Append(Bytes bytes) {
    for (const unsigned char byte : bytes) text.append(" ").append(std::to_string(byte));
  }

  std::uint64_t last_bytes_of_ = 0;
};

const Buffer kClientFrames = {
    // Ping
    0, 0, 0, 0, 10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    // Request 0x0102030405060708 of component 271, method 3, whole size 5, with two bytes
    18, 0, 0, 0, 4, 0, 0, 0, 8, 7, 6, 5, 4, 3, 2, 1,  //
    15, 1, 0, 0, 3, 0, 0, 0, 5, 0, 0, 0, 0, 0, 0, 0, 11, 12,
    // Cancel 9
    0, 0, 0, 0, 9, 0, 0, 0, 9, 0, 0, 0, 0, 0, 0, 0,
    // RequestPart with the three others
    3, 0, 0, 0, 5, 0, 0, 0, 8, 7, 6, 5, 4, 3, 2, 1, 13, 14, 15,
    // Request 7, of nothing
    16, 0, 0, 0, 4, 0, 0, 0, 7, 0, 0, 0, 0, 0, 0, 0,  //
    1, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
    // Goodbye
    1, 0, 0, 0, 12, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 77};

constexpr char kClientEvents[] =
    "\nmessage 10 0:"
    "\npacket 72623859790382856 271 3 5"
    "\nbytes of 72623859790382856: 11 12"
    "\nmessage 9 9:"
    "\nbytes of 72623859790382856: 13 14 15"
    "\npacket 7 1 2 0"
    "\nmessage 12 0: 77";

TEST(Frame, IsReadHoweverItIsCut) {
  for (std::size_t step = 1; step <= kClientFrames.size(); ++step) {
    FrameDecoder decoder(Side::kClient);
    RecordingSink sink;
    for (std::size_t at = 0; at < kClientFrames.size(); at += step) {
      const std::size_t size = std::min(step, kClientFrames.size() - at);
      EXPECT_FALSE(decoder.Feed(Bytes(kClientFrames).subspan(at, size), sink).IsFailure());
    }
    EXPECT_EQ(sink.text, kClientEvents) << step;
  }
}

TEST(Frame, HeadsAreWrittenAsTheyAreRead) {
  Buffer bytes(kMaxHeadSize);
  PacketStart start;
  start.call_id = 0x0102030405060708;
  start.component_id = 271;
  start.method_number = 3;
  start.size = 5;
  bytes.resize(PutPacketHead(bytes.data(), FrameKind::kRequest, start, 2));
  EXPECT_EQ(bytes, Buffer(kClientFrames.begin() + 16, kClientFrames.begin() + 48));
  bytes.resize(kMaxHeadSize);
  bytes.resize(PutPacketHead(bytes.data(), FrameKind::kRequestPart, start, 3));
  EXPECT_EQ(bytes, Buffer(kClientFrames.begin() + 66, kClientFrames.begin() + 82));
  bytes.resize(kMaxHeadSize);
  bytes.resize(PutPacketHead(bytes.data(), FrameKind::kReply, start, 1));
  EXPECT_EQ(bytes,
            (Buffer{9, 0, 0, 0, 6, 0, 0, 0, 8, 7, 6, 5, 4, 3, 2, 1, 5, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(Frame, NothingIsReadBehindAStop) {
  FrameDecoder decoder(Side::kClient);
  RecordingSink sink;
  sink.stop_at = FrameKind::kPing;
  EXPECT_FALSE(decoder.Feed(kClientFrames, sink).IsFailure());
  EXPECT_FALSE(decoder.Feed(kClientFrames, sink).IsFailure());
  EXPECT_EQ(sink.text, "\nmessage 10 0:");
}

// The bytes of hexadecimal text with blanks.
Buffer FromHex(const std::string& text) {
  Buffer bytes;
  for (std::size_t at = 0; at < text.size(); at += 2) {
    if (text[at] == ' ') ++at;
    bytes.push_back(static_cast<unsigned char>(std::stoi(text.substr(at, 2), nullptr, 16)));
  }
  return bytes;
}

TEST(Frame, TheMalformedIsRefusedByItsHead) {
  const Side client = Side::kClient;
  const Side server = Side::kServer;
  const struct {
    const char* what;
    Side from;
    const char* head;  // size, kind and flags, call
    std::uint32_t code;
  } cases[] = {
      {"kind 0", client, "00000000 00000000 0000000000000000", kMalformedFrame.code},
      {"kind 13", client, "00000000 0D000000 0000000000000000", kMalformedFrame.code},
      {"kind 255", server, "00000000 FF000000 0000000000000000", kMalformedFrame.code},
      {"a flag", client, "00000000 0A010000 0000000000000000", kMalformedFrame.code},
      {"reserved", client, "00000000 0A000001 0000000000000000", kMalformedFrame.code},
      {"Ping of a call", client, "00000000 0A000000 0100000000000000", kMalformedFrame.code},
      {"Cancel of none", client, "00000000 09000000 0000000000000000", kMalformedFrame.code},
      {"Ping with bytes", client, "01000000 0A000000 0000000000000000", kFrameTooLong.code},
      {"Request, no head", client, "0F000000 04000000 0100000000000000", kMalformedFrame.code},
      {"Reply, no head", server, "07000000 06000000 0100000000000000", kMalformedFrame.code},
      {"part of nothing", client, "00000000 05000000 0100000000000000", kMalformedFrame.code},
      {"part too long by 1", server, "01000400 07000000 0100000000000000", kFrameTooLong.code},
      {"Hello of 4,097", client, "01100000 01000000 0000000000000000", kFrameTooLong.code},
      {"4 GiB", client, "FFFFFFFF 0C000000 0000000000000000", kFrameTooLong.code},
      {"text: GET / HTTP", client, "47455420 2F204854 54502F312E310D0A", kMalformedFrame.code},
      {"server's Request", server, "10000000 04000000 0100000000000000", kUnexpectedFrame.code},
      {"client's Fault", client, "00000000 08000000 0100000000000000", kUnexpectedFrame.code},
  };
  for (const auto& entry : cases) {
    FrameDecoder decoder(entry.from);
    RecordingSink sink;
    EXPECT_EQ(decoder.Feed(FromHex(entry.head), sink).GetCode(), entry.code) << entry.what;
    EXPECT_EQ(sink.text, "") << entry.what;
  }
}

TEST(Frame, HelloIsAsDescribed) {
  Hello hello;
  hello.service_id = 33;
  hello.user.Fill() = "me";
  hello.password.Fill() = "pw3";
  const Buffer expected = {'o', 'b', 'j', 'p', 'r', 'o', 'b', 'e', 1,   0, 0, 0,   1,   0,  0,
                           0,   33,  0,   0,   0,   2,   0,   'm', 'e', 3, 0, 'p', 'w', '3'};
  EXPECT_EQ(EncodeHello(hello), expected);
  Hello read;
  EXPECT_TRUE(DecodeHello(expected, read));
  EXPECT_EQ(read.service_id, 33u);
  EXPECT_EQ(read.user.Get(), "me");
  EXPECT_EQ(read.password.Get(), "pw3");
  for (std::size_t size = 0; size < expected.size(); ++size) {
    Hello cut;
    EXPECT_FALSE(DecodeHello(Bytes(expected).first(size), cut)) << size;
  }
  Buffer longer = expected;
  longer.push_back(1);  // of a later version
  EXPECT_TRUE(DecodeHello(longer, read));
  longer[0] = 'O';
  EXPECT_FALSE(DecodeHello(longer, read));
}

TEST(Frame, WelcomeIsAsDescribed) {
  Welcome welcome;
  welcome.connection_key = 0x04030201;
  welcome.interfaces = {{271, 2, 7}};
  const Buffer expected = {1, 0, 0, 0, 1, 2, 3, 4, 1, 0, 0, 0, 15, 1, 0, 0, 2, 0, 0, 0, 7, 0, 0, 0};
  EXPECT_EQ(EncodeWelcome(welcome), expected);
  Welcome read;
  EXPECT_TRUE(DecodeWelcome(expected, read));
  ASSERT_EQ(read.interfaces.size(), 1u);
  EXPECT_EQ(read.interfaces[0].component_id, 271u);
  EXPECT_EQ(read.interfaces[0].further, 7u);
  Buffer bad = expected;
  bad[8] = 2;  // interfaces, of which one is there
  EXPECT_FALSE(DecodeWelcome(bad, read));
  bad[11] = 255;
  EXPECT_FALSE(DecodeWelcome(bad, read));
}

TEST(Frame, AnErrorTooLongForAMessageKeepsItsCode) {
  const Common::Error error(7, std::string(100'000, 'x').c_str(), Common::LineTag());
  const Buffer bytes = EncodeError(error);
  EXPECT_LE(bytes.size(), kMaxMessageFrame);
  EXPECT_EQ(DecodeError(bytes, Common::Error()).GetCode(), 7u);
  EXPECT_EQ(DecodeError(Buffer{9, 9}, Common::Error(8, Common::LineTag())).GetCode(), 8u);
}

}  // namespace
}  // namespace Platform::Ipc
