#include "enterprise/common/por/unit_digest.h"

#include <gtest/gtest.h>

#include <string>

#include "enterprise/common/por/binary_data.h"
#include "tests/enterprise/common/por/stream_support.h"

namespace Por::Util {
namespace {

std::string Digest(const std::string& text, std::size_t piece) {
  MD5HashConsumer hash;
  for (std::size_t at = 0; at < text.size(); at += piece) {
    hash.Consume(reinterpret_cast<const unsigned char*>(text.data()) + at,
                 static_cast<std::uint32_t>(std::min(piece, text.size() - at)));
  }
  const Common::Guid digest = hash.Finish();
  return Streams::ToHex({digest.bytes.begin(), digest.bytes.end()});
}

std::string DigestOf(const char* hex) {
  const Common::Guid digest = ComputeUnitDigest(*Streams::Read(Streams::FromHex(hex)));
  return Streams::ToHex({digest.bytes.begin(), digest.bytes.end()});
}

// The test suite of RFC 1321, and a million times "a", whose digest is well known.
TEST(MD5HashConsumer, GivesTheVectorsOfTheRfcInPiecesOfAnySize) {
  const struct {
    std::string text;
    const char* digest;
  } kVectors[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
       "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
      {std::string(1000000, 'a'), "7707d6ae4e027c70eea2a935c2296f21"},
  };
  for (const auto& vector : kVectors) {
    for (const std::size_t piece : {1u, 3u, 64u, 1023u, 1024u, 1025u, 4096u, 1u << 20}) {
      EXPECT_EQ(Digest(vector.text, piece), vector.digest) << vector.text.size() << "/" << piece;
    }
  }
}

TEST(MD5HashConsumer, BeginsAnewBehindADigest) {
  MD5HashConsumer hash;
  hash.Consume(reinterpret_cast<const unsigned char*>("x"), 1);
  hash.Finish();
  const Common::Guid digest = hash.Finish();
  EXPECT_EQ(Streams::ToHex({digest.bytes.begin(), digest.bytes.end()}),
            "d41d8cd98f00b204e9800998ecf8427e");
}

// Digests of hand-made streams, taken with md5sum.
TEST(UnitDigest, IsTheMd5OfTheStream) {
  EXPECT_EQ(DigestOf("550045"), "5eab0788f36bdc78ddf82278b708050a") << "nil";
  EXPECT_EQ(DigestOf("5543500D0200000061005506050000004545"), "1528759177773ea3705c0d9129acee4d")
      << "a = 5";
  EXPECT_EQ(DigestOf("550207540D020000006B005501014545"), "4bd6482a0a985f9836ba92f1cc11f77b")
      << "a trait on a byte";
  EXPECT_EQ(DigestOf("55020745"), "871c9749f5de6b58601207ed1f989895") << "the same without it";
  EXPECT_EQ(DigestOf("5508050000000000000045"), "f0c8cacad1350b27a3443c4ad0dca6a7")
      << "5 as a qword";
  EXPECT_EQ(DigestOf("55060500000045"), "46f0fe87520d2fd74c56e6435a81c7a2") << "5 as a dword";
}

}  // namespace
}  // namespace Por::Util
