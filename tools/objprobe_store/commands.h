#pragma once

#include <cstdint>
#include <string>
#include <vector>

// The commands of objprobe-store. `store` is a connection string. Results go to standard output.
// Each command that changes a store is one transaction: done as a whole, or not at all.
// They throw Common::Error, or Tools::CommandFailure for what has more to say.

namespace StoreTool {

void Create(const std::string& store);
// Stores the objects of unit text files: the root, or the elements of a root that is an array.
void Import(const std::string& store, const std::vector<std::string>& files);
// Stores the one object of a file and prints its identification.
void Put(const std::string& store, const std::string& file);
void Delete(const std::string& store, const std::string& id);
// Carries out the operation in a file of unit text, or those of the array in it, and prints a line
// for each: place, class, what came of it, and the object that it names, if it does; tabs between
// them. docs/operations.md has the rest.
void Apply(const std::string& store, const std::string& file);
// A line for each object: identification, what it is, bytes; tabs between them.
void List(const std::string& store);
// Lines of a word, a tab and a number; for each `Is` value the word "type", the value, a number.
void PrintStatistics(const std::string& store);
void Generate(const std::string& store, std::uint64_t count, std::uint64_t seed);

}  // namespace StoreTool
