#include "platform/resources/resources.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/common/number_text.h"
#include "core/common/resource_api.h"
#include "core/common/unix/program_module.h"
#include "core/common/unix/safe_assert.h"
#include "core/common/unix/static_mutex.h"
#include "core/common/unix/trace.h"
#include "platform/resources/languages.h"
#include "platform/resources/program_section.h"
#include "platform/resources/zip_reader.h"

namespace ResourceApi {

struct ModuleHandle {
  std::string path;
};

}  // namespace ResourceApi

namespace Platform::Resources {

namespace {

using Languages = std::vector<std::string>;

constinit Common::StaticMutex languages_mutex;
// Null before the first file. Never destroyed: exit handlers may still ask.
constinit const Languages* languages = nullptr;

constexpr std::size_t kMaxFileSize = std::size_t{16} << 20;
// Forty times what our own takes. A name costs many times its bytes.
constexpr std::size_t kMaxLocalesSize = 4096;

// Counts the changes of the language.
constinit std::atomic<unsigned long long> changes{0};

// Who is told; a process has one catalogue loader, so few places do.
using Callback = void (*)();
constexpr std::size_t kMaxSubscribers = 16;
constinit std::atomic<Callback> subscribers[kMaxSubscribers] = {};

Languages GetLanguages() {
  const Common::StaticMutexLock lock(languages_mutex);
  if (languages == nullptr) languages = new Languages(ListLanguages(GetEnvironmentLocales()));
  return *languages;
}

// As a call that began with the former language may end last, it is made again then.
void Tell(Callback callback) {
  unsigned long long seen;
  do {
    seen = changes.load();
    callback();
  } while (changes.load() != seen);
}

// Once in the process: every change of the language tries again.
void TraceOnce(std::atomic<bool>& is_traced, const std::string& text) {
  if (is_traced.exchange(true)) return;
  try {
    Common::Trace(Common::kTraceWarning, 0, 0, text.c_str());
  } catch (...) {
    // A sink's own trouble: the caller only wants a text.
  }
}

OpenZipFunction* GetZipOpener() {
  static constinit std::atomic<OpenZipFunction*> loaded{nullptr};
  static constinit std::atomic<bool> is_traced{false};
  OpenZipFunction* open = loaded.load(std::memory_order_acquire);
  if (open != nullptr) return open;
  std::string reason;
  open =
      reinterpret_cast<OpenZipFunction*>(Common::FindInModule(kZipModule, kOpenZipSymbol, reason));
  if (open == nullptr) {
    TraceOnce(is_traced, reason);
  } else {
    loaded.store(open, std::memory_order_release);
  }
  return open;
}

// A store while files are taken out of it.
class Store {
 public:
  explicit Store(const std::string& path) {
    // First: a program that loads no modules doesn't open a file that its user names, either.
    OpenZipFunction* const open = GetZipOpener();
    if (open == nullptr) return;
    bytes_ = ReadSection(path, kStoreSection);
    if (bytes_.bytes == nullptr) return;
    archive_.reset(open(bytes_.bytes.get(), bytes_.size));
  }

  std::unique_ptr<unsigned char[]> Read(const std::string& name, unsigned int& size,
                                        std::size_t limit = kMaxFileSize) const {
    size = 0;
    if (archive_ == nullptr) return nullptr;
    return archive_->Read(name.c_str(), limit, &size);
  }

  // The names of "locales"; none if the store can't be read.
  std::vector<std::string> ListLocales() const {
    unsigned int size = 0;
    const std::unique_ptr<unsigned char[]> file = Read("locales", size, kMaxLocalesSize);
    std::vector<std::string> names;
    if (file == nullptr) return names;
    const std::string_view text(reinterpret_cast<const char*>(file.get()), size);
    constexpr std::string_view kBetween = ", \t\r\n";
    for (std::size_t at = 0; (at = text.find_first_not_of(kBetween, at)) != text.npos;) {
      const std::size_t end = std::min(text.find_first_of(kBetween, at), text.size());
      names.emplace_back(text.substr(at, end - at));
      at = end;
    }
    return names;
  }

 private:
  SectionBytes bytes_;
  std::unique_ptr<const ZipArchive> archive_;  // null if there is no sound one
};

std::unique_ptr<unsigned char[]> LoadFile(const std::string& path, const char* name,
                                          unsigned int& size) {
  const Languages wanted = GetLanguages();
  if (wanted.front() == kEnglish) return nullptr;
  const Store store(path);
  const std::vector<std::string> present = store.ListLocales();
  if (present.empty()) {
    static constinit std::atomic<bool> is_traced{false};
    TraceOnce(is_traced, "No resource store can be read in " + path);
    return nullptr;
  }
  for (const std::string& language : wanted) {
    if (std::find(present.begin(), present.end(), language) == present.end()) continue;
    if (language == kEnglish) break;
    return store.Read(language + "/" + name, size);
  }
  return store.Read(name, size);
}

}  // namespace

void SetLanguage(const char* locales) {
  std::unique_ptr<const Languages> changed;
  if (locales != nullptr) {
    changed = std::make_unique<Languages>(ListLanguages(locales));
  } else {
    changed = std::make_unique<Languages>(ListLanguages(GetEnvironmentLocales()));
  }
  {
    const Common::StaticMutexLock lock(languages_mutex);
    changed.reset(std::exchange(languages, changed.release()));
  }
  ++changes;
  for (const std::atomic<Callback>& subscriber : subscribers) {
    if (const Callback callback = subscriber.load()) Tell(callback);
  }
}

}  // namespace Platform::Resources

namespace ResourceApi {

namespace {

// What a path in the byte escape stands for. False for what is none.
bool GetBytes(const char16_t* path, std::string& bytes) {
  for (; *path != 0; ++path) {
    if (*path >= 0x80 && !Common::IsEscapedByte(*path)) return false;
    bytes += static_cast<char>(*path);
  }
  return !bytes.empty();
}

}  // namespace

ModuleHandle* OpenModule(const char16_t* path) {
  if (path == nullptr) return nullptr;
  try {
    auto module = std::make_unique<ModuleHandle>();
    if (!GetBytes(path, module->path)) return nullptr;
    return module.release();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void CloseModule(ModuleHandle* module) {
  delete module;
}

std::unique_ptr<unsigned char[]> LoadFile(ModuleHandle* module, const char* name, const char*,
                                          unsigned int* size) {
  *size = 0;
  if (module == nullptr) return nullptr;
  try {
    return Platform::Resources::LoadFile(module->path, name, *size);
  } catch (const std::bad_alloc&) {
    *size = 0;
    return nullptr;
  }
}

void SubscribeLanguageEvents(void (*callback)()) {
  bool is_kept = false;
  for (std::atomic<Platform::Resources::Callback>& place : Platform::Resources::subscribers) {
    Platform::Resources::Callback present = nullptr;
    is_kept = place.compare_exchange_strong(present, callback) || present == callback;
    if (is_kept) break;
  }
  SAFE_ASSERT(is_kept);
  Platform::Resources::Tell(callback);
}

void UnsubscribeLanguageEvents(void (*callback)()) {
  for (std::atomic<Platform::Resources::Callback>& place : Platform::Resources::subscribers) {
    Platform::Resources::Callback present = callback;
    place.compare_exchange_strong(present, nullptr);
  }
}

}  // namespace ResourceApi
