#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace ResourceTool {

// A file that can't be taken as it is: "FILE:LINE: why".
class BadFile : public std::runtime_error {
 public:
  BadFile(const std::string& file, std::size_t line, const std::string& why);
};

// An entry of a file of translations, in UTF-8.
struct PoEntry {
  std::size_t line = 0;               // of its first keyword
  std::string context;                // msgctxt
  std::string original;               // msgid
  std::string translation;            // msgstr
  std::vector<std::string> comments;  // extracted ones, without "#. "
  bool is_fuzzy = false;
};

// The entries of a file in gettext's PO format, the header, whose original is empty, first.
// Obsolete entries are left out. Throws BadFile for what isn't of that format, or is in another
// encoding than UTF-8 (that its header must name), or has plural forms, of which messages have
// none. `name` is for messages.
std::vector<PoEntry> ReadPo(const std::string& name, std::string_view text);

}  // namespace ResourceTool
