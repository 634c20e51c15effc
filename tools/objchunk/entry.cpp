#include "tools/objchunk/entry.h"

#include "core/common/string.h"
#include "core/file/backup.h"
#include "core/file/packed_number.h"
#include "core/file/unix/file_name.h"

namespace ChunkTool {
namespace {

// Takes the part up to the next "/" off the front.
std::string_view TakeName(std::string_view& path) {
  const std::string_view name = path.substr(0, path.find('/'));
  path.remove_prefix(name.size() < path.size() ? name.size() + 1 : name.size());
  return name;
}

}  // namespace

const char* FindFault(std::string_view name) {
  if (name.empty()) return "The name is empty.";
  if (name.front() == '/') return "The name is absolute.";
  if (name.back() == '/') return "The name ends with \"/\".";
  if (name.find('\0') != std::string_view::npos) return "There is a zero byte in the name.";
  while (!name.empty()) {
    const std::string_view part = TakeName(name);
    if (part == "..") return "The name climbs with \"..\".";
    if (part.empty() || part == ".") return "There is an empty part or \".\" in the name.";
  }
  return nullptr;
}

bool MayLeadOutside(std::string_view target, std::size_t depth) {
  if (target.substr(0, 1) == "/") return true;
  std::size_t climbed = 0;
  bool descended = false;
  while (!target.empty()) {
    const std::string_view part = TakeName(target);
    if (part.empty() || part == ".") continue;
    if (part != "..") {
      descended = true;
    } else if (descended || ++climbed > depth) {
      return true;
    }
  }
  return false;
}

bool SurvivesText(std::string_view name) {
  return Core::TextToFileName(Core::FileNameToText(name)) == name;
}

bool ParseDescription(std::string_view chunk, EntryDescription& description) {
  const auto* const bytes = reinterpret_cast<const unsigned char*>(chunk.data());
  if (chunk.size() < Core::kDescriptionSize) return false;
  const auto get = [&](std::size_t place) { return Core::GetNumber<std::uint32_t>(bytes + place); };
  description = {get(4), get(8), get(12), get(16), 0, 0, {}};
  switch (description.type) {
    case Core::kCharacterDeviceEntry:
    case Core::kBlockDeviceEntry:
      if (chunk.size() < Core::kDeviceDescriptionSize) return false;
      description.major_number = get(20);
      description.minor_number = get(24);
      return true;
    case Core::kSymLinkEntry: {
      if (chunk.size() < Core::kLinkDescriptionSize) return false;
      const std::size_t length = Core::GetNumber<std::uint16_t>(bytes + 20);
      if (chunk.size() < Core::kLinkDescriptionSize + 2 * length) return false;
      Common::String target;
      for (std::size_t i = 0; i < length; ++i) {
        const auto unit = Core::GetNumber<std::uint16_t>(bytes + 22 + 2 * i);
        if (unit == 0) break;  // where a restore ends it, too
        target += static_cast<char16_t>(unit);
      }
      description.target = Core::TextToFileName(target);
      return true;
    }
    default:
      return true;
  }
}

}  // namespace ChunkTool
