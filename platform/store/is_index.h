#pragma once

#include <string>
#include <vector>

#include "enterprise/common/por/unit.h"

// The index over the `Is` traits of the stored objects' roots. A pattern with such a trait can
// match only an object that has one of an equal value, so an entry per value finds the candidates;
// the pattern itself decides about each of them.

namespace Platform::Store {

// The key of a trait value, as bytes: the type index, then for a value of a kind that objects are
// named by (texts, GUIDs, integers) the value, text cut to its first 120 code units. Equal values
// have equal keys; the converse need not hold.
using IsKey = std::string;

// The keys of the root's `Is` traits, each once, in order.
std::vector<IsKey> GetIsKeys(const Por::View::Unit& object);

// The keys that an object must have so that `pattern` can match it, each once; at most eight. None
// means that all objects are candidates: there is no such trait, or a predicate that is asked
// before it may raise, and then does so for objects without it too.
std::vector<IsKey> GetDemandedIsKeys(const Por::View::Unit& pattern);

// The texts among the values of the root's `Is` traits, as UTF-8 and joined by ", ".
std::string GetTypeText(const Por::View::Unit& object);

// What a key says to a reader: the text of a text value, else the word of its kind.
std::string DescribeIsKey(const IsKey& key);

}  // namespace Platform::Store
