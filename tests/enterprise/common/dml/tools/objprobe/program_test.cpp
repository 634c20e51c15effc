#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/run_program.h"
#include "tests/support/temporary_folder.h"

// Runs the program as its users do and compares all it prints.

namespace ObjProbe {
namespace {

using TestSupport::ProgramResult;
using TestSupport::RunProgram;
using TestSupport::Sink;

using Words = std::vector<std::string>;

ProgramResult RunObjprobe(Words words, Sink sink = Sink::kPipe) {
  words.insert(words.begin(), "objprobe");
  return RunProgram(OBJPROBE_PROGRAM, words, sink);
}

// Where no service has its socket.
ProgramResult RunWithoutServices(Words words) {
  const TestSupport::TemporaryFolder folder;
  words.insert(words.begin(), "objprobe");
  return RunProgram(OBJPROBE_PROGRAM, words,
                    {.environment = {"VELORIN_IPC_DIR=" + folder.GetPath()}});
}

constexpr char kUsage[] =
    "Usage: objprobe.exe <hostname> <user> <password> <service> <query>\n"
    "Where: <service> - HUB | VLT | AGT | DML | DB\n"
    "       <query> - <object_type>\n"
    "               | pattern <pattern> [options <options>]\n"
    "               | pattern_file <filename> [options_file <filename>] [report]\n";

TEST(RefusedCommandLine, ShowsWhatWasFoundAndTheUsage) {
  const struct {
    Words words;
    const char* text;
  } cases[] = {
      {{}, ",,,,,,,,,.\ncode: 1\n"},
      {{"h", "u"}, "h,u,,,,,,,,.\ncode: 1\n"},
      {{"h", "u", "p", "DML"}, "h,u,p,DML,,,,,,.\ncode: 1\n"},
      {{"report"}, ",,,,,,,,,report.\ncode: 1\n"},
      {{"h", "u", "p", "xyz", "t"}, "h,u,p,,,,,,,.\ncode: 2\n"},
      {{"h", "u", "p", "RACK", "t"}, "h,u,p,,,,,,,.\ncode: 2\n"},
      {{"h", "u", "p", "dml", "pattern_file", "report"}, "h,u,p,DML,,,,,,report.\ncode: 1\n"},
      {{"h", "u", "p", "DML", "pattern", "X", "options"}, "h,u,p,DML,,X,,,,.\ncode: 1\n"},
      {{"h", "u", "p", "DML", "pattern", "X", "options", "report"},
       "h,u,p,DML,,X,,,,report.\ncode: 1\n"},
      {{"h", "u", "p", "DML", "pattern_file", "F", "options_file"}, "h,u,p,DML,,,F,,,.\ncode: 1\n"},
      {{"a,b", "\xFF\n", "p w"}, "a,b,\xFF\n,p w,,,,,,,.\ncode: 1\n"},
  };
  for (const auto& c : cases) {
    const ProgramResult result = RunObjprobe(c.words);
    EXPECT_EQ(result.out, std::string(c.text) + kUsage);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.status, 0);
  }
  // The name of the program counts as the last argument too.
  EXPECT_EQ(RunProgram(OBJPROBE_PROGRAM, {"report"}).out,
            std::string(",,,,,,,,,report.\ncode: 1\n") + kUsage);
  EXPECT_EQ(RunProgram(OBJPROBE_PROGRAM, {}).out, std::string(",,,,,,,,,.\ncode: 1\n") + kUsage);
}

// The text without the numbers of source places, which say nothing to a user.
std::string WithoutPlaces(const std::string& text) {
  std::string plain = std::regex_replace(text, std::regex("\\| line: 0x[0-9a-f]+\n"), "| line\n");
  return std::regex_replace(plain, std::regex("(\\| file: [a-z/_]+):[0-9]+\n"), "$1\n");
}

TEST(FailedQuery, PrintsItsErrorBehindTheEchoAndExitsWithItsCode) {
  const std::string no_service = "Error 0x3: Failed to create local connection with HUB\n| line\n";
  const struct {
    Words query;
    std::string text;  // the beginning
    int status;
  } cases[] = {
      {{"t"}, no_service, 3},
      // Options go first, whatever the order of evaluation would be.
      {{"pattern", ".Nil().End()", "options", ".DWord(7).End()"},
       "Interpret trace: .Dword(7).End()\nInterpret trace: .Nil().End()\n" + no_service,
       3},
      {{"pattern", "Foo(", "options", " "},
       "Interpret trace: \nInterpret trace: Error 0x6: Statement 'Foo' is unknown.\n| line\n",
       6},
      {{"pattern", ".Composite().Property(\"a\""},
       "Interpret trace: .Composite().Property(\"a\")Error 0x1: Input is over!\n| line\n",
       1},
      {{"pattern", ".Guid(x)"},
       "Interpret trace: .Guid('undefined')Error 0x7: Cannot convert 'x' to Common::Guid.\n| "
       "line\n",
       7},
      // The options file is not consulted beside a pattern.
      {{"pattern", " ", "options_file", "/nowhere"}, "Interpret trace: \n" + no_service, 3},
      {{"pattern_file", "/nowhere"}, "Error 0x1: Cannot read from file '/nowhere'\n| line\n", 1},
      // The options file comes first.
      {{"pattern_file", "/nothing", "options_file", "/nowhere"},
       "Error 0x1: Cannot read from file '/nowhere'\n| line\n",
       1},
      // Options beside a file are not read, and an empty name is no file.
      {{"pattern_file", "", "options", "Foo("}, no_service, 3},
      {{"pattern", "", "options", "Foo("}, no_service, 3},
      {{""}, no_service, 3},
  };
  for (const auto& c : cases) {
    Words words = {"localhost", "u", "p", "hub"};
    words.insert(words.end(), c.query.begin(), c.query.end());
    const ProgramResult result = RunWithoutServices(words);
    EXPECT_EQ(WithoutPlaces(result.out).substr(0, c.text.size()), c.text);
    EXPECT_EQ(result.out.back(), '\n');
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.status, c.status);
  }
}

TEST(FailedQuery, PrintsTheWholeError) {
  const ProgramResult result = RunWithoutServices({"h", "u", "p", "DML", "t"});
  const std::string head =
      "Error 0x3: Failed to create local connection with DML\n"
      "| line\n"
      "| file: enterprise/common/dml/tools/objprobe/main\n"
      "| function: CreateAccessPoint\n"
      "| $module: objprobe_lxa64_43267\n"
      "|\n"
      "| error 0xad";
  EXPECT_EQ(WithoutPlaces(result.out).substr(0, head.size()), head);
}

// A store with two objects, made by the store's own tool.
class StoreReport : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    folder_ = std::make_unique<TestSupport::TemporaryFolder>();
    store_ = *folder_ / "objects.db";
    const std::string text = *folder_ / "objects.txt";
    std::ofstream(text) << R"(
      .Array()
        .Composite()
          .Trait("Is").String("Task").End().Trait("Is").String("Object").End()
          .Trait("PrimaryKey").Guid(3F2504E0-4F89-11D3-9A0C-0305E82C3301).End()
          .Property("Size").QWord(4096).End()
          .Property("Name").String("alpha").End()
          .Property("Tags").Array().String("one").End().End()
        .End()
        .Composite()
          .Trait("Is").String("Machine").End()
          .Property("ID").Guid(00112233-4455-6677-8899-AABBCCDDEEFF)
            .Trait("PrimaryKey").Nil().End().End()
          .Property("Name").String(")"
                           "\xC3\xA4"
                           R"(").End()
        .End()
      .End())";
    EXPECT_EQ(RunProgram(OBJPROBE_STORE, {"objprobe-store", "create", store_}).status, 0);
    EXPECT_EQ(RunProgram(OBJPROBE_STORE, {"objprobe-store", "import", store_, text}).status, 0);
  }
  static void TearDownTestSuite() { folder_.reset(); }

  ProgramResult Query(const Words& query, Sink sink = Sink::kPipe) const {
    Words words = {store_, "user", "password", "db"};
    words.insert(words.end(), query.begin(), query.end());
    return RunObjprobe(words, sink);
  }

  static constexpr char kTask[] =
      "<object id=\"3F2504E0-4F89-11D3-9A0C-0305E82C3301\">\n"
      "  Root (Composite)\n"
      "    [Is (Common::String) = Object]\n"
      "    [Is (Common::String) = Task]\n"
      "    [PrimaryKey (Common::Guid) = 3F2504E0-4F89-11D3-9A0C-0305E82C3301]\n"
      "    Name (Common::String) = alpha\n"
      "    Size (y) = 4096\n"
      "    Tags (Array)\n"
      "      0 (Common::String) = one\n"
      "</object>\n\n";
  // The identification is the MD5 digest of the key unit's stream, computed with python3. The bytes
  // of the text came in as one character each.
  static constexpr char kMachine[] =
      "<object id=\"5BAB4DEE-1413-BB61-94F4-9AB23B8BAC1D\">\n"
      "  Root (Composite)\n"
      "    [Is (Common::String) = Machine]\n"
      "    ID (Common::Guid) = 00112233-4455-6677-8899-AABBCCDDEEFF\n"
      "      [PrimaryKey (NIL)]\n"
      "    Name (Common::String) = \xC3\x83\xC2\xA4\n"
      "</object>\n\n";

  static std::unique_ptr<TestSupport::TemporaryFolder> folder_;
  static std::string store_;
};
std::unique_ptr<TestSupport::TemporaryFolder> StoreReport::folder_;
std::string StoreReport::store_;

TEST_F(StoreReport, PrintsTheObjectsOfTheQuery) {
  const std::string all = std::string(kTask) + kMachine;
  const struct {
    Words query;
    std::string text;
  } cases[] = {
      {{"Task"}, kTask},
      {{"Object", "report"}, kTask},
      {{"Machine", "more", "words"}, kMachine},
      {{"task"}, ""},
      {{"pattern", ".Nil().End()"}, "Interpret trace: .Nil().End()\n" + all},
      {{"pattern", ".Composite().Property('Size').QWord(4096).End().End()", "report"},
       "Interpret trace: .Composite().Property(\"Size\").QWord(4096).End().End()\n" +
           std::string(kTask)},
      {{"pattern", ".Composite().Property('Size').QWord(1).End().End()"},
       "Interpret trace: .Composite().Property(\"Size\").QWord(1).End().End()\n"},
      {{"pattern", "Nil()End()", "options",
        ".Composite().Property(\"LimitOptions\").DWord(1).End().End()"},
       "Interpret trace: .Composite().Property(\"LimitOptions\").Dword(1).End().End()\n"
       "Interpret trace: .Nil().End()\n" +
           std::string(kTask)},
  };
  for (const auto& c : cases) {
    const ProgramResult result = Query(c.query);
    EXPECT_EQ(result.out, c.text);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.status, 0);
  }
}

TEST_F(StoreReport, TakesPatternAndOptionsFromFiles) {
  const TestSupport::TemporaryFolder folder;
  const auto make_file = [&folder](const std::string& name, const std::string& text) {
    std::ofstream(folder / name) << text;
    return folder / name;
  };
  const std::string pattern = make_file("pattern", ".Nil()\n.End()");
  const std::string one =
      make_file("one", ".Composite().Property('LimitOptions').DWord(1).End().End()");
  const std::string no_text = make_file("empty", "");
  // Bytes that are no UTF-8 name a file as well as others do.
  const std::string odd = make_file("odd \xFF\xC3\xA4", "Nil()End()");
  const std::string all = std::string(kTask) + kMachine;
  const std::string echo = "Interpret trace: .Nil().End()\n";
  const struct {
    Words query;
    std::string text;
  } cases[] = {
      {{"pattern_file", pattern}, echo + all},
      {{"pattern_file", odd, "report"}, echo + all},
      {{"pattern_file", pattern, "options_file", one},
       "Interpret trace: .Composite().Property(\"LimitOptions\").Dword(1).End().End()\n" + echo +
           kTask},
      // Without a unit everything matches.
      {{"pattern_file", no_text}, "Interpret trace: \n" + all},
      {{"pattern_file", "", "options_file", no_text}, "Interpret trace: \n" + all},
      {{"pattern_file", pattern, "options", "Foo("}, echo + all},
  };
  for (const auto& c : cases) {
    const ProgramResult result = Query(c.query);
    EXPECT_EQ(result.out, c.text);
    EXPECT_EQ(result.status, 0);
  }
}

TEST_F(StoreReport, TellsWhyAQueryFileCantBeRead) {
  const TestSupport::TemporaryFolder folder;
  const std::string locked = folder / "locked";
  // A lock of this process, as an editor would hold it.
  const int descriptor = ::open(locked.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  ASSERT_EQ(::fcntl(descriptor, F_SETLK, &lock), 0);
  std::filesystem::create_symlink("loop", folder / "loop");
  const std::string sparse = folder / "sparse";
  std::ofstream(sparse).put('.');
  std::filesystem::resize_file(sparse, 2ULL << 40);
  const struct {
    std::string path;
    std::string reason;
  } cases[] = {
      {folder / "missing", "error 0x40011: The specified file does not exist."},
      {folder / "loop", "error 0x40007: Error occurred while opening the file."},
      {locked, "error 0x40014: Access to the file is denied."},
      {sparse, "error 0x40006: Not enough memory to complete the operation."},
      {folder.GetPath(), "error 0x400"},
      // Without an end to be sought.
      {"/proc/self/status", "error 0x40005: Error occurred while searching in the file."},
  };
  for (const auto& c : cases) {
    const ProgramResult result = Query({"pattern_file", c.path});
    const std::string head = "Error 0x1: Cannot read from file '" + c.path +
                             "'\n| line\n| file: enterprise/common/por/parser/file_io\n"
                             "| function: Read\n| $module: objprobe_lxa64_43267\n|\n| " +
                             c.reason;
    EXPECT_EQ(WithoutPlaces(result.out).substr(0, head.size()), head);
    EXPECT_EQ(result.status, 1);
  }
  ::close(descriptor);
}

TEST_F(StoreReport, EndsInOrderWhenNobodyReads) {
  const ProgramResult result = Query({"Task"}, Sink::kClosedPipe);
  EXPECT_EQ(result.status, 141);
  EXPECT_EQ(result.err, "");
}

TEST_F(StoreReport, AStoreThatIsNotThereEndsWithItsError) {
  const ProgramResult result =
      RunObjprobe({store_ + ".missing", "u", "p", "DB", "pattern", " ", "report"});
  const std::string head =
      "Interpret trace: \nError 0x40011: The specified file does not exist.\n| line\n";
  EXPECT_EQ(WithoutPlaces(result.out).substr(0, head.size()), head);
  EXPECT_EQ(result.status, 0x11);  // the low byte of the code
}

TEST(Output, AnUnusableStandardOutputEndsTheProgramInOrder) {
  const ProgramResult closed = RunObjprobe({"a"}, Sink::kClosedPipe);
  EXPECT_EQ(closed.status, 141);
  EXPECT_EQ(closed.err, "");
  const ProgramResult full = RunObjprobe({"a"}, Sink::kFull);
  EXPECT_EQ(full.status, 74);
  EXPECT_EQ(full.err, "objprobe: cannot write to standard output: No space left on device\n");
  const ProgramResult none = RunObjprobe({"a"}, Sink::kNone);
  EXPECT_EQ(none.status, 74);
  EXPECT_EQ(none.err, "objprobe: cannot write to standard output: Bad file descriptor\n");
}

}  // namespace
}  // namespace ObjProbe
