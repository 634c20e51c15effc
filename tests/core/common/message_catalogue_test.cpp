#include "core/common/message_catalogue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "core/common/error.h"
#include "core/common/error_record.h"
#include "core/common/message_table.h"
#include "core/common/number_text.h"
#include "core/common/resource_api.h"
#include "tests/support/text.h"

// The loader beside a resource library of the test's own.

namespace ResourceApi {

struct ModuleHandle {};

}  // namespace ResourceApi

namespace {

using Common::GetMessageText;
using Common::MessageRow;
using Common::String;
using Common::Internal::IsCatalogue;
using Bytes = std::vector<unsigned char>;

void Put32(Bytes& block, std::size_t at, std::size_t value) {
  for (std::size_t i = 0; i < 4; ++i) block[at + i] = static_cast<unsigned char>(value >> (8 * i));
}

// A block with the texts of some rows of 16-bit text; all others share an empty one.
Bytes MakeBlock(const std::map<std::size_t, String>& texts, std::size_t rows = 694) {
  Bytes block(8 + 4 * rows + 2);
  for (std::size_t row = 0; row < rows; ++row) {
    const std::size_t slot = 8 + 4 * row;
    const auto text = texts.find(row);
    if (text == texts.end()) {
      Put32(block, slot, 8 + 4 * rows - slot);
      continue;
    }
    Put32(block, slot, block.size() - slot);
    for (const char16_t unit : text->second + u'\0') {
      block.push_back(static_cast<unsigned char>(unit));
      block.push_back(static_cast<unsigned char>(unit >> 8));
    }
  }
  Put32(block, 0, block.size());
  Put32(block, 4, rows);
  return block;
}

const Bytes kGerman = MakeBlock({{22, u"Fehler"}, {26, u"Erfolgreich"}});
const Bytes kFrench = MakeBlock({{22, u"Erreur"}, {26, u"Op\u00E9ration r\u00E9ussie"}});

// The state of the library.
std::atomic<const Bytes*> file{nullptr};
std::atomic<bool> has_store{true};
std::atomic<void (*)()> subscriber{nullptr};
std::function<void()> in_open;  // what else happens there

void Log(const std::string& text) {
  if (std::getenv("LOG_CALLS") != nullptr) std::fprintf(stderr, "%s;", text.c_str());
}

// As the library does it, on the thread that calls.
void ChangeTo(const Bytes* to) {
  file = to;
  subscriber.load()();
}

std::string GetHeader() {
  return TestSupport::Utf8(GetMessageText(MessageRow::ErrorHeader));
}

}  // namespace

namespace ResourceApi {

ModuleHandle* OpenModule(const char16_t* path) {
  Log(path == nullptr                                        ? "open null"
      : Common::String(path) == Common::GetProgramPathWide() ? "open program"
                                                             : "open another");
  if (path == nullptr || !has_store) return nullptr;
  auto* const module = new ModuleHandle;
  if (in_open) in_open();
  return module;
}

void CloseModule(ModuleHandle* module) {
  Log(module != nullptr ? "close" : "close null");
  delete module;
}

std::unique_ptr<unsigned char[]> LoadFile(ModuleHandle* module, const char* name, const char* other,
                                          unsigned int* size) {
  Log(std::string("load ") + name + (other != nullptr ? " with another" : "") +
      (module == nullptr ? " of nothing" : ""));
  errno = EIO;
  *size = 0;
  const Bytes* const found = file;
  if (module == nullptr || found == nullptr) return nullptr;
  // The library reports in words of its own.
  Log(GetHeader());
  *size = static_cast<unsigned int>(found->size());
  auto bytes = std::make_unique<unsigned char[]>(found->size());
  std::copy(found->begin(), found->end(), bytes.get());
  return bytes;
}

void SubscribeLanguageEvents(void (*callback)()) {
  Log("subscribe");
  errno = ENOENT;
  subscriber = callback;
  callback();
}

void UnsubscribeLanguageEvents(void (*callback)()) {
  Log(callback == subscriber ? "unsubscribe" : "unsubscribe another");
  // What is in force while the handlers run.
  Log(GetHeader());
}

}  // namespace ResourceApi

namespace {

// Each in a process of its own, as there is one first call: these run first.
using MessageCatalogueDeathTest = testing::Test;

TEST(MessageCatalogueDeathTest, TheFirstCallLoadsAndTheExitUndoesItBackwards) {
  EXPECT_EXIT(
      {
        ::setenv("LOG_CALLS", "1", 1);
        file = &kGerman;
        errno = EXDEV;
        // Runs behind all handlers of the loader, as it is registered before.
        std::atexit([] { Log("then " + GetHeader()); });
        const std::string first = GetHeader();
        const bool is_kept = errno == EXDEV;
        Log(first + (is_kept ? " kept" : ""));
        Log(TestSupport::Utf8(GetMessageText(MessageRow::Success)));
        std::exit(0);
      },
      testing::ExitedWithCode(0),
      "^subscribe;open null;open program;load objprobe.msg;Error;Fehler kept;Erfolgreich;"
      "unsubscribe;Fehler;close;then Error;$");
}

TEST(MessageCatalogueDeathTest,
     WithoutAStoreEachChangeLooksAgainAndOfTwoThatOpenItOneClosesItsOwn) {
  EXPECT_EXIT(
      {
        ::setenv("LOG_CALLS", "1", 1);
        has_store = false;
        file = &kGerman;
        Log(GetHeader());
        has_store = true;
        std::atomic<int> inside{0};
        in_open = [&] {
          ++inside;
          while (inside < 2) std::this_thread::yield();
        };
        std::thread other([] { ChangeTo(&kFrench); });
        ChangeTo(&kFrench);
        other.join();
        in_open = nullptr;
        ChangeTo(&kGerman);
        Log("in the end " + GetHeader());
        std::exit(0);
      },
      testing::ExitedWithCode(0),
      "^subscribe;open null;open program;load objprobe.msg of nothing;Error;"
      // One close before the end and one at exit, and the store isn't opened a third time.
      "(open null;|open program;)+(load objprobe.msg;|Error;|Erreur;)*close;"
      "(load objprobe.msg;|Error;|Erreur;)*in the end Fehler;"
      // The store was opened and the catalogue came after the subscription.
      "close;unsubscribe;Error;$");
}

TEST(MessageCatalogue, TextsTakenBeforeStayAndLanguagesComeBack) {
  EXPECT_NE(GetHeader(), "");
  const Common::Error english(1, GetMessageText(MessageRow::Success), Common::LineTag{});
  ChangeTo(&kGerman);
  const char16_t* const german = GetMessageText(MessageRow::ErrorHeader);
  const Common::Error error(1, GetMessageText(MessageRow::Success), Common::LineTag{});
  EXPECT_EQ(error.GetRecord()->size, english.GetRecord()->size);  // the text isn't copied
  ChangeTo(&kFrench);
  EXPECT_EQ(GetHeader(), "Erreur");
  EXPECT_EQ(german, String(u"Fehler"));
  EXPECT_EQ(error.GetMessage(), u"Erfolgreich");
  // Rows that a catalogue has no text for are empty, and a language isn't kept twice.
  EXPECT_EQ(GetMessageText(MessageRow::Line), String());
  ChangeTo(&kGerman);
  EXPECT_EQ(GetMessageText(MessageRow::ErrorHeader), german);
  errno = EXDEV;
  ChangeTo(nullptr);
  EXPECT_EQ(errno, EXDEV);
  EXPECT_EQ(GetHeader(), "Error");
}

TEST(MessageCatalogue, ABadOneLeavesEnglishInForce) {
  GetHeader();
  const std::size_t size = kGerman.size();
  // The German one with some bytes behind it and some fields set; its size is right unless set.
  const auto make = [](const Bytes& more, const std::map<std::size_t, std::size_t>& fields,
                       std::size_t less = 0) {
    Bytes block(kGerman.begin(), kGerman.end() - static_cast<std::ptrdiff_t>(less));
    block.insert(block.end(), more.begin(), more.end());
    Put32(block, 0, block.size());
    for (const auto& [at, value] : fields) Put32(block, at, value);
    return block;
  };
  // A row of 16-bit text ends with two zeros at even places, one of 8-bit text with one.
  const std::size_t slot22 = 8 + 4 * 22;
  const std::size_t slot43 = 8 + 4 * 43;
  Bytes endless = kGerman;
  endless[size - 2] = 1;
  const struct {
    const char* what;
    Bytes block;
    bool is_good = false;
  } cases[] = {
      {"as it is", kGerman, true},
      {"empty", {}},
      {"shorter than its front", {4, 0, 0, 0}},
      {"nothing but its front", {8, 0, 0, 0, 0xB6, 2, 0, 0}},
      {"693 rows", MakeBlock({{22, u"Fehler"}}, 693)},
      {"695 rows", MakeBlock({{22, u"Fehler"}}, 695)},
      {"size field too large", make({}, {{0, size + 1}})},
      {"size field too small", make({}, {{0, size - 1}})},
      {"cut", make({}, {{0, size}}, 2)},
      {"cut, with its size set right", make({}, {}, 2)},
      {"cut within the slots", make({}, {}, size - (8 + 4 * 694 - 1))},
      {"end of 16-bit text cut by half", make({}, {}, 1)},
      {"row behind the end", make({}, {{slot22, size - slot22}})},
      {"row far behind", make({}, {{slot22, 0xFFFFFFFE}})},
      {"row before its slot", make({}, {{slot22, 0xFFFFFFFC}})},
      {"row of 16-bit text at an odd place", make({}, {{slot22, size - 3 - slot22}})},
      {"last row without an end", endless},
      {"8-bit row at the last byte", make({}, {{slot43, size - 1 - slot43}}), true},
      {"8-bit row behind the end", make({}, {{slot43, size - slot43}})},
      {"8-bit row that ends at an odd place", make({'c', 'p', 0}, {{slot43, size - slot43}}), true},
      {"8-bit row without an end", make({'c', 'p'}, {{slot43, size - slot43}})},
  };
  for (const auto& c : cases) {
    // Aligned, and with nothing readable behind it.
    const auto exact = std::make_unique<unsigned char[]>(c.block.size());
    std::copy(c.block.begin(), c.block.end(), exact.get());
    EXPECT_EQ(IsCatalogue(exact.get(), c.block.size()), c.is_good) << c.what;
    ChangeTo(&kFrench);
    ChangeTo(&c.block);
    EXPECT_EQ(GetHeader(), c.is_good ? "Fehler" : "Error") << c.what;
  }
  ChangeTo(nullptr);
}

}  // namespace
