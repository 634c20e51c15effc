#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <string>

#include "core/file/backup.h"
#include "core/file/packed_number.h"
#include "core/file/unix/posix_dir.h"
#include "platform/console/error_text.h"
#include "tools/common/program.h"
#include "tools/objchunk/chunk_archive.h"
#include "tools/objchunk/commands.h"
#include "tools/objchunk/entry.h"
#include "tools/objchunk/opened_archive.h"
#include "tools/objchunk/place.h"
#include "tools/objchunk/run.h"

namespace ChunkTool {
namespace {

constexpr std::uint32_t kUnknown = ~std::uint32_t{0};

std::string FormatNumber(std::uint32_t number) {
  return number == kUnknown ? "-" : std::to_string(number);
}

std::string FormatMode(std::uint32_t mode) {
  if (mode == kUnknown) return "-";
  char text[8];
  std::snprintf(text, sizeof(text), "%04o", mode & 07777);
  return text;
}

// In UTC.
std::string FormatTime(std::uint64_t milliseconds) {
  const auto seconds = static_cast<std::time_t>(static_cast<std::int64_t>(milliseconds) / 1000);
  std::tm parts;
  char text[64];
  if (milliseconds == 0 || ::gmtime_r(&seconds, &parts) == nullptr ||
      std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &parts) == 0) {
    return "-";
  }
  return text;
}

char FormatKind(std::uint32_t type) {
  switch (type) {
    case Core::kRegularEntry:
    case Core::kOtherFileEntry:
      return '-';
    case Core::kCharacterDeviceEntry:
      return 'c';
    case Core::kBlockDeviceEntry:
      return 'b';
    case Core::kFifoEntry:
      return 'p';
    case Core::kSocketEntry:
      return 's';
    case Core::kSymLinkEntry:
      return 'l';
    case Core::kDirEntry:
      return 'd';
    default:
      return '?';
  }
}

// What the line of an entry tells, out of its chunks.
struct Summary {
  void Take(ArchiveReader& reader, std::uint8_t type, bool check) {
    std::string content;
    if (type == Core::kAttributesChunk || type == Core::kTimesChunk ||
        type == Core::kDescriptionChunk) {
      content.resize(kMaxPayload);
      content.resize(reader.Read(content.data(), content.size()));
    }
    const auto* const bytes = reinterpret_cast<const unsigned char*>(content.data());
    if (type == Core::kAttributesChunk && content.size() >= 4 &&
        (Core::GetNumber<std::uint32_t>(bytes) & Core::kDirectoryAttribute) != 0 &&
        description.type == Core::kRegularEntry) {
      description.type = Core::kDirEntry;
    }
    if (type == Core::kTimesChunk && content.size() >= 16) {
      time = Core::GetNumber<std::uint64_t>(bytes);
      if (time == 0) time = Core::GetNumber<std::uint64_t>(bytes + 8);
    }
    EntryDescription found;
    if (type == Core::kDescriptionChunk && ParseDescription(content, found)) description = found;

    std::uint64_t rest = 0;
    if (check) {
      std::string block(kMaxPayload, '\0');
      while (const std::size_t count = reader.Read(block.data(), block.size())) rest += count;
    } else {
      rest = reader.SkipChunk();
    }
    if (type == Core::kDataChunk || type == Core::kWindowsStreamChunk) size += rest;
  }

  void Print(const std::string& name) const {
    std::string more = description.target;
    if (description.type == Core::kCharacterDeviceEntry ||
        description.type == Core::kBlockDeviceEntry) {
      more = std::to_string(description.major_number);
      more.append(",").append(std::to_string(description.minor_number));
    }
    std::printf("%c\t%s\t%s\t%s\t%llu\t%s\t%s%s%s\n", FormatKind(description.type),
                FormatMode(description.mode).c_str(), FormatNumber(description.owner).c_str(),
                FormatNumber(description.group).c_str(), static_cast<unsigned long long>(size),
                FormatTime(time).c_str(), Platform::Console::MakePrintable(name).c_str(),
                more.empty() ? "" : "\t", Platform::Console::MakePrintable(more).c_str());
  }

  EntryDescription description{0, kUnknown, kUnknown, kUnknown, 0, 0, {}};
  std::uint64_t time = 0;
  std::uint64_t size = 0;
};

}  // namespace

void List(const std::string& archive, bool check) {
  const OpenedArchive opened(archive);
  ArchiveReader reader(opened.GetFile());
  std::string name;
  bool damaged = false;
  while (reader.NextEntry(name)) {
    Summary summary;
    try {
      std::uint8_t type = 0;
      while (reader.NextChunk(type)) summary.Take(reader, type, check);
    } catch (const Common::Error& error) {
      damaged = true;
      Tools::Tell(kProgram, name + ": " + Platform::Console::DescribeError(error));
      continue;
    }
    summary.Print(name);
  }
  if (const std::string fault = DescribeEnd(reader); !fault.empty()) {
    throw Tools::CommandFailure(archive + ": " + fault);
  }
  if (damaged) throw Tools::CommandFailure(archive + ": The archive is damaged.");
}

}  // namespace ChunkTool
