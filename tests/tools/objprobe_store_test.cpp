#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "enterprise/common/por/for_each_unit_by_level.h"
#include "enterprise/common/por/item_processor.h"
#include "enterprise/common/por/unit_blob.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_operations.h"
#include "tests/support/run_program.h"
#include "tests/support/running_program.h"
#include "tests/support/temporary_folder.h"
#include "tools/objprobe_store/object_generator.h"

// objprobe-store as its users see it: a process with arguments, output and an exit status.

namespace StoreTool {

namespace {

using TestSupport::ProgramResult;
using TestSupport::Sink;
using Words = std::vector<std::string>;

class StoreToolTest : public testing::Test {
 protected:
  static ProgramResult Run(Words arguments, Sink sink = Sink::kPipe) {
    arguments.insert(arguments.begin(), OBJPROBE_STORE);
    return TestSupport::RunProgram(OBJPROBE_STORE, arguments, sink);
  }
  // Runs what must be done and returns its output.
  static std::string Do(const Words& arguments) {
    const ProgramResult outcome = Run(arguments);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.err, "");
    return outcome.out;
  }
  // Runs what must fail and returns what it says behind the program's name.
  static std::string Fail(const Words& arguments) {
    const ProgramResult outcome = Run(arguments);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "");
    const std::string name = "objprobe-store: ";
    EXPECT_EQ(outcome.err.substr(0, name.size()), name);
    EXPECT_EQ(outcome.err.find('\n'), outcome.err.size() - 1);
    return outcome.err.substr(std::min(name.size(), outcome.err.size()));
  }
  std::string Write(const std::string& name, const std::string& text) const {
    std::ofstream(folder_ / name) << text;
    return folder_ / name;
  }
  static std::ptrdiff_t CountLines(const std::string& text) {
    return std::count(text.begin(), text.end(), '\n');
  }

  const TestSupport::TemporaryFolder folder_;
  const std::string store_ = folder_ / "s.db";
};

constexpr char kOne[] =
    ".Composite().Trait(\"PrimaryKey\").Guid(00000001-0002-0003-0405-060708090A0B).End()"
    ".Trait(\"Is\").String(\"Task\").End().End()";
constexpr char kTwo[] =
    ".Composite().Trait(\"PrimaryKey\").Guid(00000002-0002-0003-0405-060708090A0B).End()"
    ".Trait(\"Is\").String(\"Task\").End().Trait(\"Is\").String(\"Big\").End()"
    ".Trait(\"Is\").DWord(7).End().End()";

TEST_F(StoreToolTest, ASmallStoreFromItsMakingToItsEnd) {
  EXPECT_EQ(Do({"create", store_}), "");
  EXPECT_EQ(Do({"list", store_}), "");
  EXPECT_EQ(Do({"stats", store_}),
            "version\t2\nobjects\t0\nbytes\t0\nchanges\t0\nlast change\t0\n");
  const std::string one = Write("one", kOne);
  const std::string both = Write("both", std::string(".Array()") + kTwo + kOne + ".End()");
  EXPECT_EQ(Do({"put", store_, one}), "00000001-0002-0003-0405-060708090A0B\n");
  EXPECT_EQ(Do({"import", "sqlite:" + store_, one, both}), "1 created, 0 updated, 2 unchanged\n");
  // Bytes, by hand: 3 and 45 for the root and its key; 25 for an `Is` of four letters, 23 of three,
  // 17 with a number.
  EXPECT_EQ(Do({"list", store_}),
            "00000001-0002-0003-0405-060708090A0B\tTask\t73\n"
            "00000002-0002-0003-0405-060708090A0B\tBig, Task\t113\n");
  EXPECT_EQ(Do({"stats", store_}),
            "version\t2\nobjects\t2\nbytes\t186\nchanges\t2\nlast change\t2\n"
            "type\tTask\t2\ntype\tBig\t1\ntype\tdword\t1\n");
  EXPECT_EQ(Do({"delete", store_, "00000001-0002-0003-0405-060708090a0b"}), "");
  EXPECT_EQ(Do({"list", store_}), "00000002-0002-0003-0405-060708090A0B\tBig, Task\t113\n");
  EXPECT_EQ(Fail({"delete", store_, "00000001-0002-0003-0405-060708090A0B"}),
            "The store holds no object 00000001-0002-0003-0405-060708090A0B.\n");
}

TEST_F(StoreToolTest, TheExamplesAreAStore) {
  Do({"create", store_});
  Words arguments = {"import", store_};
  std::set<std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(OBJPROBE_EXAMPLES)) {
    if (entry.path().extension() == ".unit") files.insert(entry.path());
  }
  arguments.insert(arguments.end(), files.begin(), files.end());
  EXPECT_EQ(Do(arguments), "8 created, 0 updated, 0 unchanged\n");
}

TEST_F(StoreToolTest, OperationsOfAFileAreCarriedOutAllOrNone) {
  Do({"create", store_});
  const std::string examples = OBJPROBE_EXAMPLES;
  Do({"import", store_, examples + "/activities.unit", examples + "/machines.unit",
      examples + "/plan.unit"});
  const std::string maintenance = examples + "/operations/maintenance.unit";
  EXPECT_EQ(Do({"apply", store_, maintenance}),
            "1\tUpdateObject\tupdated\t0D9A4E12-7B60-4F35-9E2C-51B8C6A0D374\n"
            "2\tStoreOrConsolidate\tconsolidated\t0D9A4E12-7B60-4F35-9E2C-51B8C6A0D374\n"
            "3\tCreateIfNotExist\tcreated\t5E0C6B7A-93D1-42F8-A6B4-0C7D1E2F3A4B\n"
            "4\tUpdateByPattern\t2 updated, 0 unchanged\n"
            "5\tBatchOperation\t2 operations\n"
            "5.1\tDeleteByPattern\t1 deleted\n"
            "5.2\tDeleteObject\tdeleted\tE5A07B1C-3D84-4A92-8F6E-19C2D5B07A43\n");
  const std::string before = Do({"stats", store_});
  const auto operation = [](const std::string& name, const std::string& property) {
    return ".Composite().Trait(\"Is\").String(\"Dml::Operation::" + name + "\").End()" + property +
           ".End()";
  };
  const std::string failing =
      Write("failing",
            ".Array()" + operation("DeleteByPattern", ".Property(\"Pattern\").Nil().End()") +
                operation("DeleteObject",
                          ".Property(\"Key\").Guid(5E0C6B7A-93D1-42F8-A6B4-0C7D1E2F3A4B).End()") +
                ".End()");
  EXPECT_EQ(Fail({"apply", store_, failing}),
            failing +
                ": Operation 2 (DeleteObject) has failed. The store holds no object "
                "5E0C6B7A-93D1-42F8-A6B4-0C7D1E2F3A4B. (0xfc0001)\n");
  EXPECT_EQ(Do({"stats", store_}), before);
  EXPECT_EQ(Do({"apply", store_, Write("none", ".Array().End()")}), "");
}

TEST_F(StoreToolTest, FailuresAreOneReadableLineAndChangeNothing) {
  Do({"create", store_});
  const std::string one = Write("one", kOne);
  EXPECT_EQ(Fail({"create", store_}),
            store_ + ": The file (folder) already exists. File exists. (0x40013)\n");
  const std::string missing =
      ": The specified file does not exist. No such file or directory. (0x40011)\n";
  const std::string nowhere = folder_ / "no/s.db";
  EXPECT_EQ(Fail({"create", nowhere}), nowhere + missing);
  EXPECT_EQ(Fail({"create", folder_ / "\xFF"}),
            folder_ / "\xFF: objprobe opens stores by names in UTF-8 only.\n");
  std::filesystem::create_symlink(store_, folder_ / "link");
  EXPECT_EQ(Fail({"import", folder_ / "link", one, store_}),
            store_ + ": The file belongs to the store itself.\n");
  for (const std::string& file : {store_ + "-wal", store_ + "-shm"}) {
    EXPECT_EQ(Fail({"import", folder_ / "link", file}),
              file + ": The file belongs to the store itself.\n");
  }
  EXPECT_EQ(Fail({"list", one}),
            one + ": The file is corrupted. SQLite: file is not a database (26). (0x4000d)\n");
  EXPECT_EQ(Fail({"import", store_, one, nowhere}), nowhere + missing);
  EXPECT_EQ(
      Fail({"import", store_, folder_.GetPath()}),
      folder_.GetPath() + ": Error occurred while reading the file. Is a directory. (0x40001)\n");
  const std::string bad = Write("bad", ".Composite().Entity(\"x\").End()");
  EXPECT_EQ(Fail({"import", store_, one, bad}), bad + ": Statement 'Entity' is unknown. (0x6)\n");
  const std::string keyless =
      Write("keyless", std::string(".Array()") + kOne + ".Composite().End().End()");
  EXPECT_EQ(Fail({"import", store_, keyless}),
            keyless + ", object 2 of 2: DML: Object identification cannot be found. (0xfc000a)\n");
  const std::string array = Write("array", std::string(".Array()") + kOne + ".End()");
  EXPECT_EQ(Fail({"put", store_, array}),
            array + ": The file holds an array. Use \"import\" for its objects.\n");
  // Control characters come as "?" a byte, U+0080 to U+009F among them; bytes of other characters
  // stay. The parser takes each byte of the text for a character, so those come as two bytes.
  const std::string control = Write("\x1B\xC2\x9B\xC3\x84",
                                    ".Composite().\x1B[2J\n\xC2\x9B"
                                    "2J\r\x7F\xC3\x84().End()");
  EXPECT_EQ(Fail({"import", store_, one, control}),
            folder_ /
                "???\xC3\x84: Statement '?[2J?\xC3\x82??2J??\xC3\x83?"
                "?' is unknown. (0x6)\n");
  const std::string open = Write("open", ".Composite()");
  EXPECT_EQ(Fail({"put", store_, open}), open + ": There is no object in the file.\n");
  EXPECT_EQ(Fail({"delete", store_, "1"}),
            "\"1\" is no identification; one looks like 01234567-89AB-CDEF-0123-456789ABCDEF.\n");
  EXPECT_EQ(Do({"list", store_}), "");
}

TEST_F(StoreToolTest, CommandLine) {
  for (const std::string command :
       {"create", "import", "put", "delete", "apply", "list", "stats", "generate"}) {
    EXPECT_NE(Do({command, "--help"}).find("STORE"), std::string::npos) << command;
    EXPECT_EQ(Run({command}).status, 2) << command;
  }
  EXPECT_EQ(Run({}).status, 2);
  EXPECT_EQ(Run({"frob", store_}).status, 2);
  EXPECT_EQ(Run({"list", store_, "more"}).status, 2);
  for (const std::string count : {"-1", "many", "1.5", "99999999999999999999"}) {
    EXPECT_EQ(Run({"generate", store_, count}).status, 2) << count;
  }
  EXPECT_FALSE(std::filesystem::exists(store_));
}

// Changes are in force by then.
TEST_F(StoreToolTest, OutputThatCannotBeWrittenIsAFailure) {
  Do({"create", store_});
  const std::string operation = Write(
      "operation", std::string(".Composite().Trait(\"Is\").String(\"Dml::Operation::CreateObject\")"
                               ".End().Property(\"Object\")") +
                       kOne + ".End()");
  for (const Words& words : {Words{"apply", store_, operation}, {"list", store_}, {"--help"}}) {
    const ProgramResult outcome = Run(words, Sink::kFull);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "objprobe-store: Error occurred while writing to standard output.\n");
  }
  EXPECT_NE(Do({"list", store_}).find("00000001-0002-0003-0405-060708090A0B"), std::string::npos);
}

// What is stored already byte for byte is unchanged.
TEST_F(StoreToolTest, GeneratedObjectsDependOnTheSeedAlone) {
  const auto generate = [this](const std::string& count, const std::string& seed) {
    return Do({"generate", store_, count, "--seed", seed});
  };
  Do({"create", store_});
  EXPECT_EQ(generate("70", "5"), "70 created, 0 updated, 0 unchanged\n");
  EXPECT_EQ(generate("150", "5"), "80 created, 0 updated, 70 unchanged\n");
  EXPECT_EQ(generate("150", "6"), "150 created, 0 updated, 0 unchanged\n");
  EXPECT_EQ(CountLines(Do({"list", store_})), 300);
}

TEST_F(StoreToolTest, GeneratedObjectsUseEveryKindAtRealisticSizes) {
  const ObjectGenerator generator(1, *Por::GetStaticUnitFactory());
  std::set<unsigned int> kinds;
  auto note = Por::MakeProcessor<const Por::View::Unit>([&kinds](const Por::View::Unit& unit) {
    kinds.insert(Por::Util::GetValueTypeIndex(unit));
    return false;
  });
  std::size_t total = 0;
  for (std::uint64_t i = 0; i < 2000; ++i) {
    const Por::OwnedUnit object = generator.Make(i);
    Por::ForEachUnitByLevel(static_cast<const Por::View::Unit&>(*object), note);
    std::vector<unsigned char> bytes;
    Por::Util::WriteUnitBlob(*object, bytes);
    EXPECT_GE(bytes.size(), 300U);
    EXPECT_LE(bytes.size(), 1600U);
    total += bytes.size();
    const Por::OwnedUnit copy = Por::Util::ReadUnitBlob(bytes, *Por::GetStaticUnitFactory());
    ASSERT_NE(copy, nullptr);
    EXPECT_TRUE(Por::Util::UnitEqual(*object, *copy));
  }
  EXPECT_EQ(kinds.size(), static_cast<std::size_t>(Por::kNoIndex));
  EXPECT_GT(total / 2000, 500U);
  EXPECT_LT(total / 2000, 1000U);
}

TEST_F(StoreToolTest, KilledInTheMiddleItLeavesTheOldState) {
  Do({"create", store_});
  Do({"generate", store_, "100"});
  const std::string before = Do({"stats", store_});
  TestSupport::RunningProgram program(
      OBJPROBE_STORE, {OBJPROBE_STORE, "generate", store_, "100000000", "--seed", "2"});
  // Far enough that it has written more than it keeps in memory.
  EXPECT_TRUE(TestSupport::Await([log = store_ + "-wal"] {
    std::error_code none;
    return std::filesystem::exists(log) && std::filesystem::file_size(log, none) > (1U << 20);
  }));
  // Reading goes on meanwhile.
  EXPECT_EQ(CountLines(Do({"list", store_})), 100);
  EXPECT_EQ(program.Kill(), 1000 + SIGKILL);
  EXPECT_EQ(Do({"stats", store_}), before);
  EXPECT_EQ(Do({"generate", store_, "120"}), "20 created, 0 updated, 100 unchanged\n");
  EXPECT_EQ(CountLines(Do({"list", store_})), 120);
}

}  // namespace

}  // namespace StoreTool
