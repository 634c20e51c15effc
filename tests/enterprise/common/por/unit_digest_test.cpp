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

// Digests of hand-made streams, taken with md5sum.
TEST(UnitDigest, IsTheMd5OfTheStream) {
  constexpr struct {
    const char* stream;
    const char* digest;
    const char* what;
  } kDigests[] = {
      {"55 00 45", "5eab0788f36bdc78ddf82278b708050a", "nil"},
      {"55 43 50 0D 02000000 6100 55 06 05000000 45 45", "1528759177773ea3705c0d9129acee4d",
       "a = 5"},
      {"55 02 07 54 0D 02000000 6B00 55 01 01 45 45", "4bd6482a0a985f9836ba92f1cc11f77b",
       "a trait on a byte"},
      {"55 02 07 45", "871c9749f5de6b58601207ed1f989895", "the same without it"},
      {"55 08 0500000000000000 45", "f0c8cacad1350b27a3443c4ad0dca6a7", "5 as a qword"},
      {"55 06 05000000 45", "46f0fe87520d2fd74c56e6435a81c7a2", "5 as a dword"},
      {"55 43"
       "50 0D 08000000 4E0061006D006500 55 0D 28000000 3000310032003300340035003600370038003900"
       "6100620063006400650066006700680069006A00 45"
       "50 0D 0A000000 530069007A0065007300 55 41 55 09 0000000000000000 45"
       "55 09 0100000000000000 45 55 09 FFFFFFFFFFFFFFFF 45 55 09 0000000000010000 45"
       "55 09 0000000000000080 45 45"
       "54 0D 04000000 49007300 55 0B 20000000"
       "000102030405060708090A0B0C0D0E0F101112131415161718191A1B1C1D1E1F 45 45",
       "d8d5b575ceec7601cad1b804609d9dea", "187 bytes, three blocks of the hash"},
  };
  for (const auto& item : kDigests) {
    const Streams::Bytes stream = Streams::FromHex(item.stream);
    EXPECT_EQ(Hex(ComputeUnitDigest(*Streams::Read(stream))), item.digest) << item.what;
  }
}

}  // namespace
}  // namespace Por::Util
