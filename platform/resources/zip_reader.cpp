#include "platform/resources/zip_reader.h"

#include <zip.h>

#include <memory>
#include <new>
#include <utility>

namespace Platform::Resources {

namespace {

struct Discard {
  void operator()(zip_t* archive) const { zip_discard(archive); }
  void operator()(zip_file_t* file) const { zip_fclose(file); }
};

using Archive = std::unique_ptr<zip_t, Discard>;
using File = std::unique_ptr<zip_file_t, Discard>;

Archive OpenArchive(const void* bytes, std::size_t size) {
  zip_source_t* const source = zip_source_buffer_create(bytes, size, 0, nullptr);
  if (source == nullptr) return nullptr;
  Archive archive(zip_open_from_source(source, ZIP_RDONLY | ZIP_CHECKCONS, nullptr));
  if (archive == nullptr) zip_source_free(source);
  return archive;
}

// Exactly `size` bytes and then the end, where the library compares the CRC.
bool ReadWhole(zip_file_t* file, unsigned char* to, zip_uint64_t size) {
  while (size != 0) {
    const zip_int64_t count = zip_fread(file, to, size);
    if (count <= 0) return false;
    to += count;
    size -= static_cast<zip_uint64_t>(count);
  }
  unsigned char more;
  return zip_fread(file, &more, 1) == 0;
}

class LibzipArchive final : public ZipArchive {
 public:
  explicit LibzipArchive(Archive archive) : archive_(std::move(archive)) {}

  std::unique_ptr<unsigned char[]> Read(const char* name, std::size_t limit,
                                        unsigned int* size) const override {
    *size = 0;
    const zip_int64_t found = zip_name_locate(archive_.get(), name, 0);
    if (found < 0) return nullptr;
    const auto index = static_cast<zip_uint64_t>(found);
    zip_stat_t status;
    if (zip_stat_index(archive_.get(), index, 0, &status) != 0) return nullptr;
    if ((status.valid & ZIP_STAT_SIZE) == 0 || status.size > limit) return nullptr;
    const File file(zip_fopen_index(archive_.get(), index, 0));
    if (file == nullptr) return nullptr;
    std::unique_ptr<unsigned char[]> bytes(new (std::nothrow) unsigned char[status.size]);
    if (bytes == nullptr || !ReadWhole(file.get(), bytes.get(), status.size)) return nullptr;
    *size = static_cast<unsigned int>(status.size);
    return bytes;
  }

 private:
  const Archive archive_;
};

}  // namespace

ZipArchive* OpenZip(const void* bytes, std::size_t size) {
  Archive archive = OpenArchive(bytes, size);
  if (archive == nullptr) return nullptr;
  return new (std::nothrow) LibzipArchive(std::move(archive));
}

}  // namespace Platform::Resources
