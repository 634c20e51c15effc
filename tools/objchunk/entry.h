#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// What entries of an archive are called and what they say of themselves. All names and targets are
// bytes, as the file system has them.

namespace ChunkTool {

// What is wrong with the name of an entry, null if nothing: it is a path of names with "/" between
// them, without ".", ".." and empty ones.
const char* FindFault(std::string_view name);

// Whether the target of a link, `depth` folders below the one that everything is restored to, may
// lead out of it: it is absolute, climbs too far, or climbs behind a name, which may be a link
// itself.
bool MayLeadOutside(std::string_view target, std::size_t depth);

// Whether a name comes back from its text (core/file/unix/file_name.h).
bool SurvivesText(std::string_view name);

struct EntryDescription {
  std::uint32_t type = 0;  // Core::entry_type
  std::uint32_t owner = 0;
  std::uint32_t group = 0;
  std::uint32_t mode = 0;
  std::uint32_t major_number = 0;
  std::uint32_t minor_number = 0;
  std::string target;
};

// Chunk 6. False when it is no whole description.
bool ParseDescription(std::string_view chunk, EntryDescription& description);

}  // namespace ChunkTool
