#include "platform/resources/zip_reader.h"

#include <zip.h>

#include <memory>
#include <new>

namespace Platform::Resources {

namespace {

constexpr zip_uint64_t kMaxFileSize = zip_uint64_t{16} << 20;

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

}  // namespace

unsigned char* ReadZip(const void* archive_bytes, std::size_t archive_size, const char* name,
                       unsigned int* size) {
  *size = 0;
  const Archive archive = OpenArchive(archive_bytes, archive_size);
  if (archive == nullptr) return nullptr;
  const zip_int64_t index = zip_name_locate(archive.get(), name, 0);
  if (index < 0) return nullptr;
  zip_stat_t status;
  if (zip_stat_index(archive.get(), static_cast<zip_uint64_t>(index), 0, &status) != 0) {
    return nullptr;
  }
  if ((status.valid & ZIP_STAT_SIZE) == 0 || status.size > kMaxFileSize) return nullptr;
  const File file(zip_fopen_index(archive.get(), static_cast<zip_uint64_t>(index), 0));
  if (file == nullptr) return nullptr;
  std::unique_ptr<unsigned char[]> bytes(new (std::nothrow) unsigned char[status.size]);
  if (bytes == nullptr || !ReadWhole(file.get(), bytes.get(), status.size)) return nullptr;
  *size = static_cast<unsigned int>(status.size);
  return bytes.release();
}

}  // namespace Platform::Resources
