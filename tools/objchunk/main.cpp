// objchunk: keeps files and folders in archives of chunks.
//
// Exit status: 0 done, 1 failed, in part or as a whole, 2 wrong command line. Failures are told on
// standard error.

#include <CLI/CLI.hpp>
#include <iostream>
#include <string>

#include "tools/common/program.h"
#include "tools/objchunk/commands.h"
#include "tools/objchunk/run.h"

int main(int argc, char** argv) {
  CLI::App app("Keeps files and folders, with all that belongs to them, in archives of chunks.",
               ChunkTool::kProgram);
  app.require_subcommand(1);
  std::string path;
  std::string archive;
  std::string folder;
  ChunkTool::RestoreOptions options;
  bool check = false;

  CLI::App* save = app.add_subcommand(
      "save", "Append a file, or a folder with all that is in it, to an archive; make the archive");
  save->add_option("PATH", path, "What to save")->required();
  save->add_option("ARCHIVE", archive, "The archive")->required();
  CLI::App* restore = app.add_subcommand(
      "restore", "Make the entries of an archive again; the last one of a name counts");
  restore->add_option("ARCHIVE", archive, "The archive")->required();
  restore->add_option("DIR", folder, "The folder to make them in")->required();
  restore->add_flag("--overwrite", options.overwrite,
                    "Replace files that are there; folders are kept in any case");
  restore->add_flag("--outside-links", options.outside_links,
                    "Make links that lead out of DIR, too");
  CLI::App* list = app.add_subcommand(
      "list",
      "Print a line for each entry: kind, mode, owner, group, bytes, time, name, target or device");
  list->add_option("ARCHIVE", archive, "The archive")->required();
  list->add_flag("--check", check, "Read the data, too");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const int status = app.exit(error);
    if (!std::cout.flush()) return Tools::Fail(ChunkTool::kProgram, Tools::kOutputFailure);
    return status == 0 ? 0 : Tools::kWrongUsage;
  }

  ChunkTool::CatchSignals();
  return Tools::RunCommand(ChunkTool::kProgram, [&] {
    if (save->parsed()) ChunkTool::Save(path, archive);
    if (restore->parsed()) ChunkTool::Restore(archive, folder, options);
    if (list->parsed()) ChunkTool::List(archive, check);
  });
}
