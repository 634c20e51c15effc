#include "platform/resources/zip_reader.h"

// The loader's view of Platform::Resources::ReadZip.
extern "C" unsigned char* ObjprobeReadZip(const void* archive, std::size_t archive_size,
                                          const char* name, unsigned int* size);

unsigned char* ObjprobeReadZip(const void* archive, std::size_t archive_size, const char* name,
                               unsigned int* size) {
  return Platform::Resources::ReadZip(archive, archive_size, name, size);
}
