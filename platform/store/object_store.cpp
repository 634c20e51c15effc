#include "platform/store/object_store.h"

#include <utility>

#include "core/common/line_tag.h"
#include "core/common/text.h"
#include "platform/store/file_codes.h"
#include "platform/store/sqlite_store.h"

namespace Platform::Store {

namespace {

constexpr Common::SourceFile kSource{"platform/store/object_store"};
constexpr std::string_view kScheme = "sqlite:";

}  // namespace

std::string GetStorePath(std::string_view connection_string) {
  if (connection_string.substr(0, kScheme.size()) == kScheme) {
    connection_string.remove_prefix(kScheme.size());
  }
  return std::string(connection_string);
}

std::unique_ptr<ObjectStore> OpenObjectStore(const Common::String& connection_string) {
  std::string text;
  Common::ToUtf8(text, connection_string.data(), connection_string.size());
  std::string path = GetStorePath(text);
  if (connection_string.find(u'\0') != Common::String::npos) {
    throw MakeFileError(Core::kFileOpenFailure, path, "The path holds a zero character.",
                        kSource.At("OpenObjectStore", 10));
  }
  return std::make_unique<SqliteStore>(std::move(path));
}

}  // namespace Platform::Store
