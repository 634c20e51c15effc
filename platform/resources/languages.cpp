#include "platform/resources/languages.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace Platform::Resources {

namespace {

constexpr std::size_t kMaxNameSize = 16;

constexpr struct {
  std::string_view language;
  std::string_view nearest;
} kNearest[] = {
    {"zh_HK", "zh_TW"},
    {"zh_MO", "zh_TW"},
    {"zh_Hant", "zh_TW"},
    {"zh_Hant_TW", "zh_TW"},
    {"zh_Hant_HK", "zh_TW"},
    {"zh_Hant_MO", "zh_TW"},
    // The language as a whole, of which Bokmål is what nearly all write.
    {"no", "nb"},
};

bool IsLanguageName(std::string_view name) {
  const auto is_good = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
  };
  return !name.empty() && name.size() <= kMaxNameSize &&
         std::all_of(name.begin(), name.end(), is_good);
}

const char* GetVariable(const char* name) {
  const char* const value = std::getenv(name);
  return value != nullptr ? value : "";
}

void Add(std::string_view name, std::vector<std::string>& to) {
  if (std::find(to.begin(), to.end(), name) == to.end()) to.emplace_back(name);
}

void AddWithNearest(std::string_view name, std::vector<std::string>& to) {
  Add(name, to);
  for (const auto& row : kNearest) {
    if (name == row.language) Add(row.nearest, to);
  }
}

}  // namespace

std::vector<std::string> ListLanguages(std::string_view locales) {
  std::vector<std::string> languages;
  while (!locales.empty()) {
    const std::string_view locale = locales.substr(0, locales.find(':'));
    locales.remove_prefix(std::min(locale.size() + 1, locales.size()));
    const std::string_view name = locale.substr(0, locale.find_first_of(".@"));
    if (!IsLanguageName(name)) continue;
    const std::string_view language = name.substr(0, name.find('_'));
    if (name == "C" || name == "POSIX" || language == kEnglish) break;
    AddWithNearest(name, languages);
    AddWithNearest(language, languages);
  }
  Add(kEnglish, languages);
  return languages;
}

std::string GetEnvironmentLocales() {
  std::string locale("C");
  for (const char* const name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* const value = GetVariable(name);
    if (*value == '\0') continue;
    locale.assign(value);
    break;
  }
  if (locale != "C" && locale != "POSIX") {
    const char* const value = GetVariable("LANGUAGE");
    if (*value != '\0') locale.assign(value);
  }
  return locale;
}

}  // namespace Platform::Resources
