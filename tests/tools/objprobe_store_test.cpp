#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "enterprise/common/por/for_each_unit_by_level.h"
#include "enterprise/common/por/item_processor.h"
#include "enterprise/common/por/unit_blob.h"
#include "enterprise/common/por/unit_factory.h"
#include "enterprise/common/por/unit_operations.h"
#include "tools/objprobe_store/object_generator.h"

// objprobe-store as its users see it: a process with arguments, output and an exit status.

namespace StoreTool {

namespace {

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

struct Outcome {
  int status = -1;  // negative: the signal
  std::string out;
  std::string err;
};

class StoreToolTest : public testing::Test {
 protected:
  StoreToolTest() {
    char folder[] = "/tmp/store_tool_test.XXXXXX";
    folder_ = ::mkdtemp(folder);
    store_ = folder_ + "/s.db";
  }
  ~StoreToolTest() override { std::filesystem::remove_all(folder_); }

  // Starts the program; its output goes to the files "out" and "err" of the folder, or to `out`.
  pid_t Start(std::vector<std::string> arguments, const std::string& out = "") {
    const pid_t child = ::fork();
    if (child != 0) return child;
    const std::string out_path = out.empty() ? folder_ + "/out" : out;
    const std::string err_path = folder_ + "/err";
    ::dup2(::open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
    ::dup2(::open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
    std::vector<char*> argv;
    arguments.insert(arguments.begin(), OBJPROBE_STORE);
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    ::execv(OBJPROBE_STORE, argv.data());
    ::_exit(127);
  }
  Outcome Wait(pid_t child) {
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), ReadFile(folder_ + "/out"),
            ReadFile(folder_ + "/err")};
  }
  Outcome Run(const std::vector<std::string>& arguments, const std::string& out = "") {
    return Wait(Start(arguments, out));
  }
  // Runs what must be done and returns its output.
  std::string Do(const std::vector<std::string>& arguments) {
    const Outcome outcome = Run(arguments);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.err, "");
    return outcome.out;
  }
  // Runs what must fail and returns what it says behind the program's name.
  std::string Fail(const std::vector<std::string>& arguments) {
    const Outcome outcome = Run(arguments);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "");
    const std::string name = "objprobe-store: ";
    EXPECT_EQ(outcome.err.substr(0, name.size()), name);
    EXPECT_EQ(outcome.err.find('\n'), outcome.err.size() - 1);
    return outcome.err.substr(std::min(name.size(), outcome.err.size()));
  }
  std::string Write(const std::string& name, const std::string& text) {
    std::ofstream(folder_ + "/" + name) << text;
    return folder_ + "/" + name;
  }
  std::size_t CountLines(const std::string& text) {
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
  }

  std::string folder_;
  std::string store_;
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
            "version\t1\nobjects\t0\nbytes\t0\nchanges\t0\nlast change\t0\n");
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
            "version\t1\nobjects\t2\nbytes\t186\nchanges\t2\nlast change\t2\n"
            "type\tTask\t2\ntype\tBig\t1\ntype\tdword\t1\n");
  EXPECT_EQ(Do({"delete", store_, "00000001-0002-0003-0405-060708090a0b"}), "");
  EXPECT_EQ(Do({"list", store_}), "00000002-0002-0003-0405-060708090A0B\tBig, Task\t113\n");
  EXPECT_EQ(Fail({"delete", store_, "00000001-0002-0003-0405-060708090A0B"}),
            "The store holds no object 00000001-0002-0003-0405-060708090A0B.\n");
}

TEST_F(StoreToolTest, TheExamplesAreAStore) {
  Do({"create", store_});
  std::vector<std::string> arguments = {"import", store_};
  std::set<std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(OBJPROBE_EXAMPLES)) {
    if (entry.path().extension() == ".unit") files.insert(entry.path());
  }
  arguments.insert(arguments.end(), files.begin(), files.end());
  EXPECT_EQ(Do(arguments), "8 created, 0 updated, 0 unchanged\n");
}

TEST_F(StoreToolTest, FailuresAreOneReadableLineAndChangeNothing) {
  Do({"create", store_});
  const std::string one = Write("one", kOne);
  EXPECT_EQ(Fail({"create", store_}),
            store_ + ": The file (folder) already exists. File exists. (0x40013)\n");
  EXPECT_EQ(Fail({"create", folder_ + "/no/s.db"}),
            folder_ +
                "/no/s.db: The specified file does not exist. No such file or directory. "
                "(0x40011)\n");
  EXPECT_EQ(Fail({"list", one}),
            one + ": The file is corrupted. SQLite: file is not a database (26). (0x4000d)\n");
  EXPECT_EQ(Fail({"import", store_, one, folder_ + "/none"}),
            folder_ +
                "/none: The specified file does not exist. No such file or directory. "
                "(0x40011)\n");
  EXPECT_EQ(Fail({"import", store_, folder_}),
            folder_ + ": Error occurred while reading the file. Is a directory. (0x40001)\n");
  const std::string bad = Write("bad", ".Composite().Entity(\"x\").End()");
  EXPECT_EQ(Fail({"import", store_, one, bad}), bad + ": Statement 'Entity' is unknown. (0x6)\n");
  const std::string keyless =
      Write("keyless", std::string(".Array()") + kOne + ".Composite().End().End()");
  EXPECT_EQ(Fail({"import", store_, keyless}),
            keyless + ", object 2 of 2: DML: Object identification cannot be found. (0xfc000a)\n");
  const std::string array = Write("array", std::string(".Array()") + kOne + ".End()");
  EXPECT_EQ(Fail({"put", store_, array}),
            array + ": The file holds an array. Use \"import\" for its objects.\n");
  const std::string control = Write("control",
                                    ".Composite().\x1B[2J\n\xC2\x9B"
                                    "2J\r\xC3\x84().End()");
  const std::string told = Fail({"import", store_, one, control});
  EXPECT_EQ(told.find_first_of("\x1B\r"), std::string::npos) << told;
  EXPECT_EQ(told.find("\xC2\x9B"), std::string::npos) << told;
  const std::string open = Write("open", ".Composite()");
  EXPECT_EQ(Fail({"put", store_, open}), open + ": There is no object in the file.\n");
  EXPECT_EQ(Fail({"delete", store_, "1"}),
            "\"1\" is no identification; one looks like 01234567-89AB-CDEF-0123-456789ABCDEF.\n");
  EXPECT_EQ(Do({"list", store_}), "");
}

TEST_F(StoreToolTest, CommandLine) {
  for (const std::string command :
       {"create", "import", "put", "delete", "list", "stats", "generate"}) {
    const Outcome help = Run({command, "--help"});
    EXPECT_EQ(help.status, 0) << command;
    EXPECT_NE(help.out.find("STORE"), std::string::npos) << command;
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

TEST_F(StoreToolTest, OutputThatCannotBeWrittenIsAFailure) {
  Do({"create", store_});
  Do({"generate", store_, "20"});
  const Outcome outcome = Run({"list", store_}, "/dev/full");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err, "objprobe-store: Error occurred while writing to standard output.\n");
}

TEST_F(StoreToolTest, GeneratedObjectsDependOnTheSeedAlone) {
  const auto rows = [this](const std::string& name, const std::vector<std::string>& counts,
                           const std::string& seed) {
    const std::string path = folder_ + "/" + name;
    Do({"create", path});
    for (const std::string& count : counts) Do({"generate", path, count, "--seed", seed});
    sqlite3* database = nullptr;
    EXPECT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
    sqlite3_stmt* statement = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(database, "SELECT hex(id), hex(data) FROM objects ORDER BY seq",
                                 -1, &statement, nullptr),
              SQLITE_OK);
    std::string text;
    while (sqlite3_step(statement) == SQLITE_ROW) {
      for (int i = 0; i < 2; ++i) {
        text += reinterpret_cast<const char*>(sqlite3_column_text(statement, i));
        text += i == 0 ? " " : "\n";
      }
    }
    sqlite3_finalize(statement);
    sqlite3_close(database);
    return text;
  };
  const std::string all = rows("a", {"150"}, "5");
  EXPECT_EQ(CountLines(all), 150U);
  EXPECT_EQ(rows("b", {"70", "150"}, "5"), all);
  EXPECT_NE(rows("c", {"150"}, "6"), all);
  // Another seed is another set of objects.
  EXPECT_EQ(Do({"generate", folder_ + "/a", "150", "--seed", "6"}),
            "150 created, 0 updated, 0 unchanged\n");
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
  const pid_t child = Start({"generate", store_, "100000000", "--seed", "2"});
  // Far enough that it has written more than it keeps in memory.
  const std::string log = store_ + "-wal";
  for (int i = 0; i < 6000; ++i) {
    std::error_code none;
    if (std::filesystem::exists(log) && std::filesystem::file_size(log, none) > (1U << 20)) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  // Reading goes on meanwhile.
  EXPECT_EQ(CountLines(Do({"list", store_})), 100U);
  ::kill(child, SIGKILL);
  EXPECT_EQ(Wait(child).status, -SIGKILL);
  EXPECT_EQ(Do({"stats", store_}), before);
  EXPECT_EQ(Do({"generate", store_, "120"}), "20 created, 0 updated, 100 unchanged\n");
  EXPECT_EQ(CountLines(Do({"list", store_})), 120U);
}

}  // namespace

}  // namespace StoreTool
