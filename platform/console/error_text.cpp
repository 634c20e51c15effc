#include "platform/console/error_text.h"

#include "core/common/error_record.h"
#include "core/common/number_text.h"
#include "core/common/text.h"

namespace Platform::Console {

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

std::string MakePrintable(std::string text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte < 0x20 || byte == 0x7F) text[i] = '?';
    // U+0080 to U+009F are C2 80 to C2 9F.
    if (byte != 0xC2 || i + 1 == text.size()) continue;
    const auto next = static_cast<unsigned char>(text[i + 1]);
    if (next >= 0x80 && next < 0xA0) text[i] = text[i + 1] = '?';
  }
  return text;
}

}  // namespace Platform::Console
