#include "enterprise/common/por/unit_digest.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "enterprise/common/por/binary_data.h"
#include "tests/enterprise/common/por/stream_support.h"

namespace Por::Util {
namespace {

std::string Hex(const Common::Guid& digest) {
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
  MD5HashConsumer hash;  // begins anew behind each digest
  for (const auto& [text, digest] : kVectors) {
    for (const std::size_t piece : {1u, 3u, 64u, 1023u, 1024u, 1025u, 4096u, 1u << 20}) {
      for (std::size_t at = 0; at < text.size(); at += piece) {
        hash.Consume(reinterpret_cast<const unsigned char*>(text.data()) + at,
                     static_cast<std::uint32_t>(std::min(piece, text.size() - at)));
      }
      EXPECT_EQ(Hex(hash.Finish()), digest) << text.size() << "/" << piece;
    }
  }
}

// A hand-made stream of 187 bytes, three blocks of the hash, and its digest by md5sum.
TEST(UnitDigest, IsTheMd5OfTheStream) {
  const Streams::Bytes stream = Streams::FromHex(
      "55 43"
      "50 0D 08000000 4E0061006D006500 55 0D 28000000 3000310032003300340035003600370038003900"
      "6100620063006400650066006700680069006A00 45"
      "50 0D 0A000000 530069007A0065007300 55 41 55 09 0000000000000000 45"
      "55 09 0100000000000000 45 55 09 FFFFFFFFFFFFFFFF 45 55 09 0000000000010000 45"
      "55 09 0000000000000080 45 45"
      "54 0D 04000000 49007300 55 0B 20000000"
      "000102030405060708090A0B0C0D0E0F101112131415161718191A1B1C1D1E1F 45 45");
  EXPECT_EQ(Hex(ComputeUnitDigest(*Streams::Read(stream))), "d8d5b575ceec7601cad1b804609d9dea");
}

}  // namespace
}  // namespace Por::Util
