// objprobe-resources OUTPUT TEMPLATE RESOURCE_XML TRANSLATION...: makes the resource store of the
// programs, a ZIP archive (platform/resources/resources.h). A translation is the file LANGUAGE.po.
// Equal files give equal archives.
//
// Exit status: 0 made, 1 refused or failed, 2 wrong command line. Failures are told on standard
// error, and nothing is made then.

#include <zip.h>

#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "core/common/message_catalogue.h"
#include "tools/objprobe_resources/catalogue.h"

namespace ResourceTool {

namespace {

// Names and contents, in the order of the archive.
using Files = std::vector<std::pair<std::string, std::string>>;

std::string ReadFile(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  std::string text{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
  if (!stream) throw std::runtime_error(path + ": The file can't be read.");
  return text;
}

Files MakeFiles(const std::string& template_file, const std::string& resource_file,
                const std::vector<std::string>& translations) {
  const Template rows = ReadTemplate(template_file, ReadFile(template_file));
  std::string locales("en");
  Files catalogues;
  for (const std::string& path : translations) {
    const std::string language = std::filesystem::path(path).stem();
    const std::vector<unsigned char> block = CompileCatalogue(rows, language, path, ReadFile(path));
    if (!Common::Internal::IsCatalogue(block.data(), block.size())) {
      throw std::runtime_error(path + ": The catalogue would be refused.");
    }
    locales.append(",").append(language);
    catalogues.emplace_back(language + "/" + Common::Internal::kCatalogueFile,
                            std::string(block.begin(), block.end()));
  }
  Files files;
  files.emplace_back("locales", locales + "\n");
  files.emplace_back("resource.xml", ReadFile(resource_file));
  // English has no catalogue of its own: the built-in table is.
  files.emplace_back(Common::Internal::kCatalogueFile, std::string());
  files.insert(files.end(), catalogues.begin(), catalogues.end());
  return files;
}

[[noreturn]] void FailZip(zip_t* archive) {
  const std::string reason(zip_strerror(archive));
  zip_discard(archive);
  throw std::runtime_error(reason);
}

void WriteZip(const std::string& path, const Files& files) {
  int code = 0;
  zip_t* const archive = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &code);
  if (archive == nullptr) throw std::runtime_error(path + ": The file can't be written.");
  for (const auto& [name, content] : files) {
    zip_source_t* const source = zip_source_buffer(archive, content.data(), content.size(), 0);
    const zip_int64_t index =
        source != nullptr ? zip_file_add(archive, name.c_str(), source, 0) : -1;
    if (index < 0) {
      zip_source_free(source);
      FailZip(archive);
    }
    // The beginning of time in archives: the first day of 1980.
    constexpr zip_uint16_t kFirstDay = (1 << 5) | 1;
    if (zip_file_set_dostime(archive, static_cast<zip_uint64_t>(index), 0, kFirstDay, 0) != 0) {
      FailZip(archive);
    }
  }
  if (zip_close(archive) != 0) FailZip(archive);
}

}  // namespace

}  // namespace ResourceTool

int main(int argc, char** argv) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  if (words.size() < 3) {
    std::fputs("Usage: objprobe-resources OUTPUT TEMPLATE RESOURCE_XML TRANSLATION...\n", stderr);
    return 2;
  }
  try {
    ResourceTool::WriteZip(
        words[0], ResourceTool::MakeFiles(words[1], words[2], {words.begin() + 3, words.end()}));
    return 0;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return 1;
  }
}
