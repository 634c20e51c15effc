#include "platform/resources/zip_reader.h"

#include <minizip/unzip.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

namespace Platform::Resources {

namespace {

// The archive's bytes as the file that the ZIP library reads. It is the opaque argument of the
// calls below and its own stream.
struct Bytes {
  const unsigned char* begin;
  std::size_t size;
  std::size_t position = 0;
};

Bytes& Get(voidpf stream) {
  return *static_cast<Bytes*>(stream);
}

voidpf Open(voidpf bytes, const void* /*name*/, int /*mode*/) {
  return bytes;
}

uLong ReadBytes(voidpf /*bytes*/, voidpf stream, void* to, uLong size) {
  Bytes& bytes = Get(stream);
  const std::size_t count = std::min<std::size_t>(size, bytes.size - bytes.position);
  if (count != 0) std::memcpy(to, bytes.begin + bytes.position, count);
  bytes.position += count;
  return count;
}

uLong Write(voidpf /*bytes*/, voidpf /*stream*/, const void* /*from*/, uLong /*size*/) {
  return 0;
}

ZPOS64_T Tell(voidpf /*bytes*/, voidpf stream) {
  return Get(stream).position;
}

// Offsets come out of the archive; one beyond its end fails.
long Seek(voidpf /*bytes*/, voidpf stream, ZPOS64_T offset, int origin) {
  Bytes& bytes = Get(stream);
  std::size_t from = 0;
  if (origin == ZLIB_FILEFUNC_SEEK_CUR) from = bytes.position;
  if (origin == ZLIB_FILEFUNC_SEEK_END) from = bytes.size;
  if (offset > bytes.size - from) return -1;
  bytes.position = from + offset;
  return 0;
}

int Close(voidpf /*bytes*/, voidpf /*stream*/) {
  return 0;
}

int GetError(voidpf /*bytes*/, voidpf /*stream*/) {
  return 0;
}

constexpr int kMatchCase = 1;
constexpr uLong kEncrypted = 1;  // a flag of a file
// A store has one for each language and a few more; each costs time when one is looked for.
constexpr ZPOS64_T kMaxFiles = 1000;

class MinizipArchive final : public ZipArchive {
 public:
  MinizipArchive(const void* bytes, std::size_t size)
      : bytes_{static_cast<const unsigned char*>(bytes), size} {
    zlib_filefunc64_def calls = {&Open, &ReadBytes, &Write,    &Tell,
                                 &Seek, &Close,     &GetError, &bytes_};
    archive_ = unzOpen2_64(nullptr, &calls);
  }
  MinizipArchive(const MinizipArchive&) = delete;
  MinizipArchive& operator=(const MinizipArchive&) = delete;

  ~MinizipArchive() override {
    if (archive_ != nullptr) unzClose(archive_);
  }

  bool IsSound() const {
    unz_global_info64 info;
    return archive_ != nullptr && unzGetGlobalInfo64(archive_, &info) == UNZ_OK &&
           info.number_entry <= kMaxFiles;
  }

  std::unique_ptr<unsigned char[]> Read(const char* name, std::size_t limit,
                                        unsigned int* size) const override {
    *size = 0;
    if (unzLocateFile(archive_, name, kMatchCase) != UNZ_OK) return nullptr;
    unz_file_info64 info;
    if (unzGetCurrentFileInfo64(archive_, &info, nullptr, 0, nullptr, 0, nullptr, 0) != UNZ_OK) {
      return nullptr;
    }
    if ((info.flag & kEncrypted) != 0 || info.uncompressed_size > limit) return nullptr;
    // What it can't unpack the library hands out as it is, without looking at the CRC.
    if (info.compression_method != 0 && info.compression_method != Z_DEFLATED) return nullptr;
    const auto wanted = static_cast<unsigned int>(info.uncompressed_size);
    std::unique_ptr<unsigned char[]> bytes(new (std::nothrow) unsigned char[wanted]);
    if (bytes == nullptr || unzOpenCurrentFile(archive_) != UNZ_OK) return nullptr;
    const bool is_whole = ReadWhole(bytes.get(), wanted);
    // Compares the CRC of a file that was read to its end.
    if (unzCloseCurrentFile(archive_) != UNZ_OK || !is_whole) return nullptr;
    *size = wanted;
    return bytes;
  }

 private:
  bool ReadWhole(unsigned char* to, unsigned int size) const {
    while (size != 0) {
      const int count = unzReadCurrentFile(archive_, to, size);
      if (count <= 0) return false;
      to += count;
      size -= static_cast<unsigned int>(count);
    }
    return true;
  }

  Bytes bytes_;
  unzFile archive_;  // null if the bytes are no archive
};

}  // namespace

ZipArchive* OpenZip(const void* bytes, std::size_t size) {
  std::unique_ptr<MinizipArchive> archive(new (std::nothrow) MinizipArchive(bytes, size));
  if (archive == nullptr || !archive->IsSound()) return nullptr;
  return archive.release();
}

}  // namespace Platform::Resources
