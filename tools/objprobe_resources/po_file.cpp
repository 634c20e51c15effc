#include "tools/objprobe_resources/po_file.h"

#include <algorithm>
#include <cctype>

#include "core/common/text.h"

namespace ResourceTool {

BadFile::BadFile(const std::string& file, std::size_t line, const std::string& why)
    : std::runtime_error(file + ":" + std::to_string(line) + ": " + why) {}

namespace {

constexpr std::string_view kCharset = "charset=UTF-8\n";

// Also without surrogates, which the conversion lets through: U+D800 begins ED A0.
bool IsUtf8(std::string_view text) {
  for (std::size_t at = 0; (at = text.find('\xED', at)) != text.npos; ++at) {
    if (at + 1 < text.size() && static_cast<unsigned char>(text[at + 1]) >= 0xA0) return false;
  }
  Common::String wide;
  return text.find('\0') == text.npos && Common::ToUtf16(wide, text.data(), text.size());
}

bool IsOctal(char c) {
  return c >= '0' && c <= '7';
}

class PoReader {
 public:
  PoReader(const std::string& name, std::string_view text) : name_(name), text_(text) {}

  std::vector<PoEntry> Read() {
    while (!text_.empty()) {
      ++line_;
      std::string_view line = text_.substr(0, text_.find('\n'));
      text_.remove_prefix(std::min(line.size() + 1, text_.size()));
      if (line.ends_with('\r')) line.remove_suffix(1);
      if (!IsUtf8(line)) Fail("The line isn't UTF-8.");
      TakeLine(line);
    }
    EndEntry();
    if (entries_.empty() || !entries_.front().original.empty() ||
        !entries_.front().context.empty()) {
      Fail("There is no header.");
    }
    if (entries_.front().translation.find(kCharset) == std::string::npos) {
      throw BadFile(name_, entries_.front().line, "The header doesn't say charset=UTF-8.");
    }
    return std::move(entries_);
  }

 private:
  enum class Part { kNone, kContext, kOriginal, kTranslation };

  [[noreturn]] void Fail(const std::string& why) const { throw BadFile(name_, line_, why); }

  void TakeLine(std::string_view line) {
    line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
    if (line.empty() || line.starts_with("#~")) return;
    if (line.front() == '#') return TakeComment(line);
    if (line.front() == '"') return TakeText(line);
    const std::size_t blank = line.find_first_of(" \t\"");
    const std::string_view keyword = line.substr(0, blank);
    if (keyword == "msgctxt") {
      EndEntry();
      Begin(Part::kContext);
    } else if (keyword == "msgid") {
      if (part_ != Part::kContext) EndEntry();
      Begin(Part::kOriginal);
    } else if (keyword == "msgstr" && part_ == Part::kOriginal) {
      part_ = Part::kTranslation;
    } else {
      Fail("Nothing of the kind can stand here.");
    }
    line.remove_prefix(std::min(line.find_first_not_of(" \t", keyword.size()), line.size()));
    TakeText(line);
  }

  void TakeComment(std::string_view line) {
    EndEntry();
    if (line.starts_with("#.")) {
      const std::size_t at = line.find_first_not_of(" \t", 2);
      if (at != line.npos) entry_.comments.emplace_back(line.substr(at));
    }
    if (line.starts_with("#,") && line.find("fuzzy") != line.npos) entry_.is_fuzzy = true;
  }

  void Begin(Part part) {
    if (part_ == Part::kNone) entry_.line = line_;
    part_ = part;
  }

  void EndEntry() {
    if (part_ == Part::kNone) return;
    if (part_ != Part::kTranslation) Fail("The entry before has no msgstr.");
    part_ = Part::kNone;
    entries_.push_back(std::move(entry_));
    entry_ = PoEntry();
  }

  std::string& GetText() {
    switch (part_) {
      case Part::kContext:
        return entry_.context;
      case Part::kOriginal:
        return entry_.original;
      case Part::kTranslation:
        return entry_.translation;
      case Part::kNone:
        break;
    }
    Fail("A text stands by itself.");
  }

  void TakeText(std::string_view line) {
    std::string& text = GetText();
    if (line.empty() || line.front() != '"') Fail("A text in quotes is missing.");
    std::size_t at = 1;
    while (at < line.size() && line[at] != '"') {
      if (line[at] == '\\') {
        text += TakeEscape(line, at);
      } else {
        text += line[at++];
      }
    }
    if (at == line.size()) Fail("A quote is missing at the end.");
    if (line.find_first_not_of(" \t", at + 1) != line.npos) Fail("Something is behind the text.");
    if (!IsUtf8(text)) Fail("The text isn't UTF-8.");
  }

  // Those of C but for numbers of characters beyond a byte.
  char TakeEscape(std::string_view line, std::size_t& at) const {
    constexpr std::string_view kLetters = "abfnrtv\\\"'?";
    constexpr std::string_view kMeanings = "\a\b\f\n\r\t\v\\\"'?";
    ++at;
    if (at == line.size()) Fail("A quote is missing at the end.");
    if (const std::size_t letter = kLetters.find(line[at]); letter != kLetters.npos) {
      ++at;
      return kMeanings[letter];
    }
    unsigned int value = 0;
    if (line[at] == 'x') {
      const std::size_t begin = ++at;
      for (; at < line.size() && at - begin < 2 &&
             std::isxdigit(static_cast<unsigned char>(line[at]));
           ++at) {
        const char c = line[at];
        value = value * 16 + static_cast<unsigned int>(c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10);
      }
      if (at == begin) Fail("There is no such escape.");
    } else {
      if (!IsOctal(line[at])) Fail("There is no such escape.");
      for (int digits = 0; digits < 3 && at < line.size() && IsOctal(line[at]); ++digits) {
        value = value * 8 + static_cast<unsigned int>(line[at++] - '0');
      }
    }
    if (value == 0 || value > 0xFF) Fail("There is no such character.");
    return static_cast<char>(value);
  }

  const std::string& name_;
  std::string_view text_;
  std::size_t line_ = 0;
  Part part_ = Part::kNone;
  PoEntry entry_;
  std::vector<PoEntry> entries_;
};

}  // namespace

std::vector<PoEntry> ReadPo(const std::string& name, std::string_view text) {
  return PoReader(name, text).Read();
}

}  // namespace ResourceTool
