// Printing a report: w1 STREAMS
//
// Reads the units from the framed streams, one at a time, and prints each as a report does.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "core/common/error.h"
#include "enterprise/common/dml/tools/objprobe/dml.h"
#include "enterprise/common/dml/tools/objprobe/output.h"
#include "enterprise/common/por/unit_blob.h"
#include "enterprise/common/por/unit_factory.h"

namespace {

constexpr std::uint32_t kMaxFrame = 1 << 20;

// The next frame: a length (u32, little-endian) and as many bytes. False at the end; an input that
// is cut, too long in a frame or unreadable ends the program.
bool ReadFrame(std::FILE* file, std::vector<unsigned char>& bytes) {
  std::uint32_t size;
  const std::size_t head = std::fread(&size, 1, sizeof size, file);
  if (head == 0 && std::ferror(file) == 0) return false;
  if (head == sizeof size && size <= kMaxFrame) {
    bytes.resize(size);
    if (std::fread(bytes.data(), 1, size, file) == size) return true;
  }
  std::fputs("w1: the input is damaged\n", stderr);
  std::exit(1);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "Usage: %s STREAMS\n", argv[0]);
    return 2;
  }
  std::FILE* const file = std::fopen(argv[1], "rb");
  if (file == nullptr) {
    std::perror(argv[1]);
    return 1;
  }
  ObjProbe::PrepareStandardStreams();
  const Por::Construction::InMemoryUnitFactory factory;
  ObjProbe::ReportReader reader;
  std::vector<unsigned char> bytes;
  try {
    while (ReadFrame(file, bytes)) {
      const Por::OwnedUnit unit = Por::Util::ReadUnitBlob(bytes, factory);
      if (unit == nullptr) {
        std::fputs("w1: a frame holds no unit\n", stderr);
        return 1;
      }
      reader.Read(*unit);
    }
  } catch (const Common::Error& error) {
    std::fprintf(stderr, "%s: error 0x%x\n", argv[0], error.GetCode());
    return 1;
  }
  ObjProbe::StandardOutput().Flush();
  std::fclose(file);
}
