#include "enterprise/common/dml/tools/objprobe/output.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cfloat>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "enterprise/common/dml/tools/objprobe/output_stream.h"
#include "tests/enterprise/common/dml/tools/objprobe/captured_output.h"

namespace ObjProbe {
namespace {

// An output into a socket that keeps the writes apart.
class PacketOutput {
 public:
  PacketOutput() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends_), 0); }
  ~PacketOutput() {
    ::close(ends_[0]);
    ::close(ends_[1]);
  }
  int Descriptor() const { return ends_[0]; }
  std::vector<std::string> TakeWrites() {
    std::vector<std::string> writes;
    char buffer[4096];
    for (ssize_t size = 0; (size = ::recv(ends_[1], buffer, sizeof buffer, MSG_DONTWAIT)) >= 0;) {
      writes.emplace_back(buffer, static_cast<std::size_t>(size));
    }
    return writes;
  }

 private:
  int ends_[2];
};

using Writes = std::vector<std::string>;

TEST(Output, ALineIsOneWriteWhenItEnds) {
  PacketOutput packets;
  Output output(packets.Descriptor());
  output.Append("head ");
  output.AppendDecimal(-5);
  EXPECT_EQ(packets.TakeWrites(), Writes{});
  output.EndLine();
  output.EndLine();
  output.Append("open");
  EXPECT_EQ(packets.TakeWrites(), (Writes{"head -5\n", "\n"}));
  output.Flush();
  output.Flush();
  EXPECT_EQ(packets.TakeWrites(), Writes{"open"});
}

TEST(OutputStream, SharesTheOrderWithItsOutput) {
  PacketOutput packets;
  Output output(packets.Descriptor());
  OutputStream stream(output);
  output.Append("<");
  stream << "echo " << 7 << std::flush;
  stream << 'x' << "y\n";
  stream << "z";
  output.Append(">");
  output.EndLine();
  EXPECT_EQ(packets.TakeWrites(), (Writes{"<echo 7", "xy\n", "z>\n"}));
}

TEST(Output, WritesUtf16AsUtf8InFull) {
  CapturedOutput captured;
  // Unit 0; two, three and four bytes; a high surrogate before none, a low one after none.
  const char16_t text[] = {u'A',   0,      0x7F,   0x80, 0x7FF,  0x800, 0xFFFF,
                           0xD83D, 0xDE00, 0xD83D, u'b', 0xDE00, 0xDBFF};
  captured.output.Append(std::u16string_view(text, std::size(text)));
  const char expected[] =
      "A\0\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF\xF0\x9F\x98\x80\xED\xA0\xBD"
      "b\xED\xB8\x80\xED\xAF\xBF";
  EXPECT_EQ(captured.Take(), std::string(expected, sizeof expected - 1));
}

TEST(Output, LongTextComesOutWholeAndKeepsPairsTogether) {
  CapturedOutput captured;
  Common::String text;
  std::string expected;
  // Pairs at odd and at even places, in front of and behind each multiple of a power of two.
  for (int shift = 0; shift < 2; ++shift) {
    text += u'-';
    expected += '-';
    for (std::size_t i = 0; i < Output::kCapacity / 2; ++i) {
      text += u"\U0001F600";
      expected += "\xF0\x9F\x98\x80";
    }
  }
  captured.output.Append(std::u16string_view(text));
  const std::string bytes(3 * Output::kCapacity + 5, 'b');
  captured.output.Append(bytes);
  captured.output.AppendBlanks(Output::kCapacity + 3);
  captured.output.EndLine();
  EXPECT_TRUE(captured.Take() == expected + bytes + std::string(Output::kCapacity + 3, ' ') + "\n");
}

TEST(Output, NumbersAsPrintfPrintsThem) {
  CapturedOutput captured;
  constexpr double kNumbers[] = {-0.0, 1.0,    -0.1,    1e15,    1e16,     123e-7,
                                 1e-4, 9.9e-5, DBL_MAX, DBL_MIN, HUGE_VAL, 9.9999999999999995};
  std::string expected;
  for (const double value : kNumbers) {
    char text[64];
    std::snprintf(text, sizeof text, "%.16g ", value);
    expected += text;
    captured.output.AppendDouble(value);
    captured.output.Append(' ');
  }
  EXPECT_EQ(captured.Take(), expected);

  captured.output.AppendDecimal(std::numeric_limits<long long>::min());
  captured.output.AppendDecimal(std::numeric_limits<unsigned long long>::max());
  captured.output.AppendDecimal(static_cast<signed char>(-128));
  captured.output.AppendDecimal(static_cast<unsigned char>(65));
  captured.output.Append(' ');
  captured.output.AppendHex(0xFEDCBA9876543210u);
  EXPECT_EQ(captured.Take(), "-922337203685477580818446744073709551615-12865 fedcba9876543210");
}

int told_failure = 0;
int told_failures = 0;

TEST(Output, TheFirstFailureIsToldAndTheRestDropped) {
  told_failures = 0;
  const int full = ::open("/dev/full", O_WRONLY);
  ASSERT_GE(full, 0);
  {
    Output output(full, [](int errnum) {
      told_failure = errnum;
      ++told_failures;
    });
    output.Append("a");
    output.EndLine();
    EXPECT_EQ(output.GetFailure(), ENOSPC);
    output.Append(std::string(3 * Output::kCapacity, 'b'));
    output.EndLine();
    EXPECT_EQ(told_failure, ENOSPC);
  }
  EXPECT_EQ(told_failures, 1);
  ::close(full);
}

TEST(Output, WaitsForADescriptorThatDoesNotBlock) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_NONBLOCK), 0);
  ASSERT_EQ(::fcntl(ends[0], F_SETFL, 0), 0);
  const std::string text(Output::kCapacity, 'x');
  std::string got;
  std::thread reader([&] {
    char buffer[8192];
    for (ssize_t size = 0; (size = ::read(ends[0], buffer, sizeof buffer)) > 0;) {
      got.append(buffer, static_cast<std::size_t>(size));
    }
  });
  {
    Output output(ends[1]);
    output.Append(text);
    output.Flush();
    EXPECT_EQ(output.GetFailure(), 0);
  }
  ::close(ends[1]);
  reader.join();
  EXPECT_TRUE(got == text);
  ::close(ends[0]);
}

}  // namespace
}  // namespace ObjProbe
