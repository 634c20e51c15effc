#include "core/file/unix/file_name.h"

#include <algorithm>
#include <atomic>

#include "core/common/number_text.h"

namespace Core {
namespace {

using Common::EscapeByte;
using Common::IsEscapedByte;

// What may follow a first byte of UTF-8: how many bytes, and the bounds of the next one. They leave
// out what is longer than needed, surrogates and what is beyond U+10FFFF.
struct utf8_lead {
  unsigned int size;  // of the sequence; 0: begins none
  unsigned char low;
  unsigned char high;
};

constexpr utf8_lead GetLead(unsigned char byte) {
  if (byte < 0xC2 || byte > 0xF4) return {0, 0, 0};
  if (byte < 0xE0) return {2, 0x80, 0xBF};
  if (byte < 0xF0) {
    return {3, static_cast<unsigned char>(byte == 0xE0 ? 0xA0 : 0x80),
            static_cast<unsigned char>(byte == 0xED ? 0x9F : 0xBF)};
  }
  return {4, static_cast<unsigned char>(byte == 0xF0 ? 0x90 : 0x80),
          static_cast<unsigned char>(byte == 0xF4 ? 0x8F : 0xBF)};
}

// The size of the sequence with which the bytes begin; 0 if they begin none.
std::size_t DecodeUtf8(std::string_view bytes, char32_t& character) {
  const utf8_lead lead = GetLead(static_cast<unsigned char>(bytes[0]));
  if (lead.size == 0 || bytes.size() < lead.size) return 0;
  character = static_cast<unsigned char>(bytes[0]) & (0x7Fu >> lead.size);
  for (std::size_t i = 1; i != lead.size; ++i) {
    const auto byte = static_cast<unsigned char>(bytes[i]);
    if (byte < (i == 1 ? lead.low : 0x80) || byte > (i == 1 ? lead.high : 0xBF)) return 0;
    character = character << 6 | (byte & 0x3Fu);
  }
  return lead.size;
}

void AppendUtf16(Common::String& out, char32_t character) {
  if (character < 0x10000) {
    out.push_back(static_cast<char16_t>(character));
    return;
  }
  out.push_back(static_cast<char16_t>(0xD7C0 + (character >> 10)));
  out.push_back(static_cast<char16_t>(0xDC00 | (character & 0x3FF)));
}

void AppendUtf8(std::string& out, char32_t character) {
  const auto push = [&](char32_t byte) { out.push_back(static_cast<char>(byte)); };
  if (character < 0x80) return push(character);
  if (character < 0x800) {
    push(0xC0 | character >> 6);
  } else {
    if (character < 0x10000) {
      push(0xE0 | character >> 12);
    } else {
      push(0xF0 | character >> 18);
      push(0x80 | (character >> 12 & 0x3F));
    }
    push(0x80 | (character >> 6 & 0x3F));
  }
  push(0x80 | (character & 0x3F));
}

bool IsAscii(char byte) {
  return static_cast<unsigned char>(byte) < 0x80;
}

class utf8_converter final : public file_name_converter {
 public:
  bool AppendText(Common::String& out, std::string_view name) override {
    if (std::all_of(name.begin(), name.end(), IsAscii)) {
      out.append(name.begin(), name.end());
      return true;
    }
    while (!name.empty()) {
      char32_t character = 0;
      std::size_t size = DecodeUtf8(name, character);
      if (size == 0) {
        // What an incomplete sequence has behind its first byte begins no sequence either: escaping
        // it byte by byte gives what escaping it as a whole would.
        character = EscapeByte(static_cast<unsigned char>(name[0]));
        size = 1;
      }
      AppendUtf16(out, character);
      name.remove_prefix(size);
    }
    return true;
  }

  bool AppendBytes(std::string& out, std::u16string_view text) override {
    for (std::size_t i = 0; i != text.size(); ++i) {
      char32_t character = text[i];
      if ((character & 0xF800) == 0xD800) {
        if (character >= 0xDC00 || i + 1 == text.size() || (text[i + 1] & 0xFC00) != 0xDC00) {
          return false;
        }
        character = 0x10000 + ((character & 0x3FF) << 10) + (text[++i] & 0x3FFu);
      }
      AppendUtf8(out, character);
    }
    return true;
  }

  bool PassesAscii() const noexcept override { return true; }
};

constinit utf8_converter utf8;
constinit std::atomic<file_name_converter*> current{&utf8};

bool IsPlain(char16_t unit) {
  return unit < 0x80 || IsEscapedByte(unit);
}

}  // namespace

void SetFileNameConverter(file_name_converter* converter) noexcept {
  current.store(converter != nullptr ? converter : &utf8, std::memory_order_release);
}

Common::String FileNameToText(std::string_view name) {
  file_name_converter& converter = *current.load(std::memory_order_acquire);
  Common::String text;
  text.reserve(name.size());
  if (!converter.AppendText(text, name)) text.clear();
  return text;
}

std::string TextToFileName(std::u16string_view text) {
  file_name_converter& converter = *current.load(std::memory_order_acquire);
  std::string name;
  name.reserve(text.size());
  if (converter.PassesAscii() && std::all_of(text.begin(), text.end(), IsPlain)) {
    for (const char16_t unit : text) name.push_back(static_cast<char>(unit & 0xFF));
    return name;
  }
  // The escapes stand between the runs, where no encoding can have a say in them.
  while (!text.empty()) {
    if (IsEscapedByte(text[0])) {
      name.push_back(static_cast<char>(text[0] & 0xFF));
      text.remove_prefix(1);
      continue;
    }
    const auto end = std::find_if(text.begin(), text.end(), IsEscapedByte);
    const auto size = static_cast<std::size_t>(end - text.begin());
    if (!converter.AppendBytes(name, text.substr(0, size))) return {};
    text.remove_prefix(size);
  }
  return name;
}

}  // namespace Core
