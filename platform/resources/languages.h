#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Platform::Resources {

inline constexpr char kEnglish[] = "en";

// The names of languages to look for, best first, for a list of locale names with colons between
// them, as LANGUAGE has it: of each locale its language with the region, then the language alone,
// with what stands nearest in between (Taiwan's writing for Hong Kong, Macau and traditional
// characters). Codeset and modifier don't count; names that could be no locale are passed over. The
// list ends with English, also for "C", "POSIX" and any region of English.
std::vector<std::string> ListLanguages(std::string_view locales);

// The list of locales of the environment: the first of LC_ALL, LC_MESSAGES and LANG that is set and
// not empty names the locale; without one it is "C". Unless that is "C" or "POSIX", a LANGUAGE that
// isn't empty takes its place.
std::string GetEnvironmentLocales();

}  // namespace Platform::Resources
