#include "platform/resources/zip_reader.h"

// The loader's view of Platform::Resources::OpenZip.
extern "C" Platform::Resources::ZipArchive* ObjprobeOpenZip(const void* bytes, std::size_t size);

Platform::Resources::ZipArchive* ObjprobeOpenZip(const void* bytes, std::size_t size) {
  return Platform::Resources::OpenZip(bytes, size);
}
