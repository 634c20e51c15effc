#pragma once

#include <string>

// The commands of objchunk. They print counts or lines on standard output, tell what fails entry by
// entry on standard error and go on with the next one. At the end, and for what keeps them from
// going on, they throw Common::Error or Tools::CommandFailure.

namespace ChunkTool {

// Appends the file, folder with all that is in it, or whatever else `path` names to the archive,
// which is made when it isn't there. A folder comes behind what is in it. The archive itself is
// passed over. Links are saved as links.
void Save(const std::string& path, const std::string& archive);

struct RestoreOptions {
  // Takes the place of files, links and the like that are there already. Folders are kept in any
  // case.
  bool overwrite = false;
  // Makes links that lead out of the folder, too.
  bool outside_links = false;
};
// Makes the entries of the archive below an existing folder. Nothing is written outside of it: an
// entry whose name would lead out, or on whose way there is a link, is refused.
void Restore(const std::string& archive, const std::string& folder, const RestoreOptions& options);

// A line for each entry: kind, mode, owner, group, bytes, time, name, and a link's target or a
// device's numbers; tabs between them. `check` reads everything, not only what is printed.
void List(const std::string& archive, bool check);

}  // namespace ChunkTool
