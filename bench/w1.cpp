// Printing a report: w1 STREAMS
//
// Reads the units from the framed streams, one at a time, and prints each as a report does.

#include <cstdint>
#include <cstdio>
#include <vector>

#include "core/common/error.h"
#include "enterprise/common/dml/tools/objprobe/dml.h"
#include "enterprise/common/dml/tools/objprobe/output.h"
#include "enterprise/common/por/unit_blob.h"
#include "enterprise/common/por/unit_factory.h"

namespace {

// The next frame: a length (u32, little-endian) and as many bytes. False at the end.
bool ReadFrame(std::FILE* file, std::vector<unsigned char>& bytes) {
  std::uint32_t size;
  if (std::fread(&size, sizeof size, 1, file) != 1) return false;
  bytes.resize(size);
  return std::fread(bytes.data(), 1, size, file) == size;
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
      if (unit != nullptr) reader.Read(*unit);
    }
  } catch (const Common::Error& error) {
    std::fprintf(stderr, "%s: error 0x%x\n", argv[0], error.GetCode());
    return 1;
  }
  ObjProbe::StandardOutput().Flush();
  std::fclose(file);
}
