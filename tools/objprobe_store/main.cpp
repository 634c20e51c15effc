// objprobe-store: fills and inspects object stores.
//
// Exit status: 0 done, 1 failed, 2 wrong command line. Failures are told on standard error.

#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdint>
#include <iostream>
#include <string>
#include <system_error>
#include <vector>

#include "tools/common/program.h"
#include "tools/objprobe_store/commands.h"

namespace {

constexpr char kProgram[] = "objprobe-store";

// Decimal digits only, and not more than 64 bits hold.
bool ParseNumber(const std::string& text, std::uint64_t& number) {
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && stop == end;
}

std::string CheckNumber(const std::string& text) {
  std::uint64_t number = 0;
  return ParseNumber(text, number) ? "" : "\"" + text + "\" is no number of 64 bits.";
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Fills and inspects object stores.\nSTORE is \"sqlite:PATH\" or a path.", kProgram);
  app.require_subcommand(1);
  std::string store;
  std::string file;
  std::vector<std::string> files;
  std::string id;
  std::string count;
  std::string seed = "1";

  const auto add_command = [&](const char* name, const char* description) {
    CLI::App* command = app.add_subcommand(name, description);
    command->add_option("STORE", store, "The store: \"sqlite:PATH\" or a path")->required();
    return command;
  };
  const CLI::App* create = add_command("create", "Make an empty store; nothing may be there yet");
  CLI::App* import = add_command(
      "import",
      "Store the objects of unit text files, all or none. The root of a file is one object or an\n"
      "array of objects. An object whose key is stored already takes the place of the old one.\n"
      "A file is read as a whole and takes up to ten times its size in memory");
  import->add_option("FILE", files, "Files of unit text")->required();
  CLI::App* put = add_command("put", "Store the one object of a file and print its identification");
  put->add_option("FILE", file, "A file of unit text")->required();
  CLI::App* remove = add_command("delete", "Remove an object");
  remove->add_option("ID", id, "The identification, as \"list\" prints it")->required();
  CLI::App* apply = add_command(
      "apply",
      "Carry out the operations of a unit text file, all or none, and print a line for each.\n"
      "The root of the file is one operation or an array of operations");
  apply->add_option("FILE", file, "A file of unit text")->required();
  const CLI::App* list =
      add_command("list", "Print a line for each object: identification, types, bytes");
  const CLI::App* stats = add_command("stats", "Print counts of objects, bytes, changes and types");
  CLI::App* generate =
      add_command("generate", "Store made-up objects of a backup service, all or none");
  generate->add_option("COUNT", count, "How many")->required()->check(&CheckNumber);
  generate->add_option("--seed", seed, "Equal seeds give equal objects")
      ->check(&CheckNumber)
      ->capture_default_str();

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const int status = app.exit(error);
    if (!std::cout.flush()) return Tools::Fail(kProgram, Tools::kOutputFailure);
    return status == 0 ? 0 : Tools::kWrongUsage;
  }

  return Tools::RunCommand(kProgram, [&] {
    if (create->parsed()) StoreTool::Create(store);
    if (import->parsed()) StoreTool::Import(store, files);
    if (put->parsed()) StoreTool::Put(store, file);
    if (remove->parsed()) StoreTool::Delete(store, id);
    if (apply->parsed()) StoreTool::Apply(store, file);
    if (list->parsed()) StoreTool::List(store);
    if (stats->parsed()) StoreTool::PrintStatistics(store);
    if (generate->parsed()) {
      std::uint64_t objects = 0;
      std::uint64_t number = 0;
      ParseNumber(count, objects);
      ParseNumber(seed, number);
      StoreTool::Generate(store, objects, number);
    }
  });
}
