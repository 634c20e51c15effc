#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tools/objprobe_resources/po_file.h"

namespace ResourceTool {

// The rows that need a translation, by the names that files of translations use (msgctxt).
struct TemplateRow {
  std::uint32_t row = 0;
  std::string original;
};
using Template = std::map<std::string, TemplateRow, std::less<>>;

// Reads the template of all translations, whose comments number the rows ("#. Row 21."). Throws
// BadFile also if it isn't the built-in table: a row is missing or has another text there.
Template ReadTemplate(const std::string& name, std::string_view text);

// Compiles a file of translations to a catalogue, the block that message_table_internal.h lays
// down; rows that the program doesn't read are empty. Throws BadFile also for a row that is
// missing, unfinished (empty or fuzzy), unknown, there twice or made for another original, for one
// whose places "{n}" aren't those of the original, for text outside ASCII in a row of 8-bit text,
// and for a header that names another language.
std::vector<unsigned char> CompileCatalogue(const Template& rows, const std::string& language,
                                            const std::string& name, std::string_view text);

}  // namespace ResourceTool
