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

TEST(MessageCatalogueDeathTest, WithoutAStoreEnglishStaysAndEachChangeLooksAgain) {
  EXPECT_EXIT(
      {
        ::setenv("LOG_CALLS", "1", 1);
        has_store = false;
        file = &kGerman;
        Log(GetHeader());
        has_store = true;
        ChangeTo(&kFrench);
        Log(GetHeader());
        std::exit(0);
      },
      testing::ExitedWithCode(0),
      "^subscribe;open null;open program;load objprobe.msg of nothing;Error;"
      "open null;open program;load objprobe.msg;Error;Erreur;"
      // The store was opened and the catalogue came after the subscription.
      "close;unsubscribe;Error;$");
}

TEST(MessageCatalogueDeathTest, OfTwoThatOpenTheStoreOneGivesItsOwnBack) {
  EXPECT_EXIT(
      {
        has_store = false;
        GetHeader();
        has_store = true;
        std::atomic<int> inside{0};
        in_open = [&] {
          ++inside;
          while (inside < 2) std::this_thread::yield();
        };
        ::setenv("LOG_CALLS", "1", 1);
        std::thread other([] { ChangeTo(&kGerman); });
        ChangeTo(&kGerman);
        other.join();
        in_open = nullptr;
        ChangeTo(&kFrench);
        Log("in the end " + GetHeader());
        std::exit(0);
      },
      testing::ExitedWithCode(0),
      // One close before the end and one at exit, and the store isn't opened a third time.
      "^(open null;|open program;)+(load objprobe.msg;|Error;|Fehler;)*close;"
      "(load objprobe.msg;|Error;|Fehler;)*in the end Erreur;close;unsubscribe;Error;$");
}

TEST(MessageCatalogue, TextsTakenBeforeStayAndLanguagesComeBack) {
  EXPECT_NE(GetHeader(), "");
  ChangeTo(&kGerman);
  const char16_t* const german = GetMessageText(MessageRow::ErrorHeader);
  const Common::Error error(1, GetMessageText(MessageRow::Success), Common::LineTag{});
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
  const auto change = [](Bytes block, const std::function<void(Bytes&)>& how) {
    how(block);
    return block;
  };
  // A row of 16-bit text ends with two zeros at even places, one of 8-bit text with one.
  const std::size_t slot22 = 8 + 4 * 22;
  const std::size_t slot43 = 8 + 4 * 43;
  const std::size_t size = kGerman.size();
  const struct {
    const char* what;
    Bytes block;
    bool is_good = false;
  } cases[] = {
      {"as it is", kGerman, true},
      {"empty", {}},
      {"shorter than its front", {4, 0, 0, 0}},
      {"nothing but its front", change(Bytes(8),
                                       [](Bytes& b) {
                                         Put32(b, 0, 8);
                                         Put32(b, 4, 694);
                                       })},
      {"693 rows", MakeBlock({{22, u"Fehler"}}, 693)},
      {"695 rows", MakeBlock({{22, u"Fehler"}}, 695)},
      {"size field too large", change(kGerman, [&](Bytes& b) { Put32(b, 0, size + 1); })},
      {"size field too small", change(kGerman, [&](Bytes& b) { Put32(b, 0, size - 1); })},
      {"cut", change(kGerman, [&](Bytes& b) { b.resize(size - 2); })},
      {"cut, with its size set right", change(kGerman,
                                              [&](Bytes& b) {
                                                b.resize(size - 2);
                                                Put32(b, 0, size - 2);
                                              })},
      {"cut within the slots", change(kGerman,
                                      [](Bytes& b) {
                                        b.resize(8 + 4 * 694 - 1);
                                        Put32(b, 0, b.size());
                                      })},
      {"row behind the end", change(kGerman, [&](Bytes& b) { Put32(b, slot22, size - slot22); })},
      {"row far behind", change(kGerman, [&](Bytes& b) { Put32(b, slot22, 0xFFFFFFFE); })},
      {"row before its slot", change(kGerman, [&](Bytes& b) { Put32(b, slot22, 0xFFFFFFFC); })},
      {"row of 16-bit text at an odd place",
       change(kGerman, [&](Bytes& b) { Put32(b, slot22, size - 3 - slot22); })},
      {"last row without an end", change(kGerman, [&](Bytes& b) { b[size - 2] = 1; })},
      {"end of 16-bit text cut by half", change(kGerman,
                                                [&](Bytes& b) {
                                                  b.pop_back();
                                                  Put32(b, 0, b.size());
                                                })},
      {"8-bit row at the last byte",
       change(kGerman, [&](Bytes& b) { Put32(b, slot43, size - 1 - slot43); }), true},
      {"8-bit row behind the end",
       change(kGerman, [&](Bytes& b) { Put32(b, slot43, size - slot43); })},
      {"8-bit row that ends the block at an odd place",
       change(kGerman,
              [&](Bytes& b) {
                b.insert(b.end(), {'c', 'p', 0});
                Put32(b, 0, b.size());
                Put32(b, slot43, size - slot43);
              }),
       true},
      {"8-bit row without an end", change(kGerman,
                                          [&](Bytes& b) {
                                            b.insert(b.end(), {'c', 'p'});
                                            Put32(b, 0, b.size());
                                            Put32(b, slot43, size - slot43);
                                          })},
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

TEST(MessageCatalogue, ReadersSeeOneTableOrAnotherWhileThreadsChangeIt) {
  GetHeader();
  std::atomic<bool> is_over{false};
  std::vector<std::thread> readers;
  std::atomic<int> strange{0};
  for (int i = 0; i < 2; ++i) {
    readers.emplace_back([&] {
      while (!is_over) {
        const String text = GetMessageText(MessageRow::ErrorHeader);
        if (text != u"Error" && text != u"Fehler" && text != u"Erreur") ++strange;
        const Common::Error error(5, GetMessageText(MessageRow::Success), Common::LineTag{});
        if (error.ToString().find(u"0x5") == String::npos) ++strange;
      }
    });
  }
  std::vector<std::thread> writers;
  for (int i = 0; i < 2; ++i) {
    writers.emplace_back([] {
      for (int turn = 0; turn < 200; ++turn) {
        ChangeTo(turn % 3 == 0 ? &kGerman : turn % 3 == 1 ? &kFrench : nullptr);
      }
    });
  }
  for (std::thread& writer : writers) writer.join();
  is_over = true;
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(strange, 0);
  ChangeTo(nullptr);
}

}  // namespace
