#include "tools/objprobe_store/error_text.h"

#include "core/common/error_record.h"
#include "core/common/number_text.h"
#include "core/common/text.h"

namespace StoreTool {

std::string DescribeError(const Common::Error& error) {
  std::string text;
  if (const Common::ErrorRecord* head = error.GetRecord()) {
    const char* path = head->operations->GetAnsi(head, "path");
    if (path != nullptr && *path != 0) text = std::string(path) + ": ";
  }
  for (Common::Error link = error; link.GetRecord() != nullptr; link = link.GetNextError()) {
    const Common::String wide = link.GetMessage();
    std::string message;
    Common::ToUtf8(message, wide.c_str(), wide.size());
    if (message.empty()) continue;
    text += message;
    text += message.back() == '.' ? " " : ". ";
  }
  return text + "(" + Common::NumberToHex(error.GetCode()) + ")";
}

}  // namespace StoreTool
