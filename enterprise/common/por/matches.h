#pragma once

#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/unit.h"

namespace Por::Util {

// Whether `source` satisfies `pattern`, an ordinary unit whose traits act as predicates.
//
// - A nil pattern without traits matches anything.
// - Otherwise the two values must be of the same kind, with traits on the pattern or without.
// - All traits of the pattern must hold. A trait names a predicate and its value is the argument.
// - A pattern without traits that is no composite matches an equal value (UnitValueEqual).
// - A composite pattern, with traits or without, demands each of its properties of the source, by
//   the same rules. Other properties of the source, and its traits, don't count.
//
// The predicates, for a source S and an argument V (the comparisons ask for the same kind first):
//
//   AnyValue                             always
//   EqualValue                           S is value-equal to V
//   Greater GreaterEqual Less LessEqual  by Compare(S, V)
//   Between                              S lies in [V.From, V.To]
//   In ValueIn                           S is an element of V
//   IncludedInArray ValueIncludedInArray V is an element of S
//   HasIntersection                      arrays S and V share a value
//   Like                                 text S, or a text in a Searchable array S, fits wildcard V
//   DirectRelative                       text S begins with V
//   Is PrimaryKey ForeignKey             S has that trait with value V
//   Source                               the same; any value does if V has a trait AnyValue
//   Not                                  S does not match V
//   Or                                   S matches an element of V, or V has none
//
// Throws Common::Error when the walk reaches an ill-formed place of the pattern: 0xFA000E for an
// unknown trait name or an argument of the wrong kind, 0xFA0020 for Between without its bounds.
// Not matching throws nothing; it allocates nothing unless wide or deep arrays are compared. Cost
// and stack grow with the pattern.
bool Matches(const View::Unit& source, const View::Unit& pattern);

}  // namespace Por::Util
