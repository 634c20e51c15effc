#pragma once

#include <cstddef>
#include <memory>

#include "enterprise/serialize/serializer.h"

// Packets as small XML documents in UTF-8, without declaration, line breaks and indentation:
//
//   EF BB BF <XML_SERIALIZER> elements </XML_SERIALIZER>
//
// An element is never written in the self-closing form:
//
//   <name version="2"> child elements, or the text of a value
//     <traits><trait  name="Is" type="StringValue">Dml::ViewSpec</trait></traits></name>
//
// `version` stands where the element has one, `traits`, as the last child, where its type has a
// list of them. Both blanks in front of the first attribute of a trait belong there. Names and
// attributes are not escaped. Values:
//
//   bool                        1, 0
//   integers                    decimal
//   double                      "%.16g", which some doubles don't survive exactly
//   GUID                        36 characters in upper case, no braces
//   Common::Error, byte blocks  base64 of the byte form, the bytes
//   8-bit and 16-bit text       xml_text.h; one blank between words stays a blank
//
// The reader takes children in any order; the order in which they were written costs no search.
// What it isn't asked for, such as traits, it skips. Of a value it looks at the text before the
// first child. Integers, doubles and GUIDs are read like strtoull, strtoll and sscanf do: white
// space and signs are taken, and what is no number is 0. An integer beyond 64 bits becomes the
// nearest one of 64 bits; then it is cut to its type, also to bits of another sign. A text that is
// no GUID leaves the value as it was. 8-bit text keeps the low byte of each unit and ends at the
// first 0. A version holds for the descendants, too, until one tells another.

namespace Serialization {

// The writer of a packet of `category`, 0: none. Elements of other categories are left out: of a
// value everything, of a composite element its tags, while its content goes into the enclosing one.
std::unique_ptr<Serializer> CreateXMLPacketSerializer(unsigned int category);

// The reader of a packet; `version` is the version in force at its root. The bytes are not needed
// afterwards. A packet that can't be read is reported by an assertion; its reader stands empty and
// reports another one and throws kNoMetaInfoCode when an element is asked of it.
std::unique_ptr<Deserializer> CreateXMLPacketDeserializer(const unsigned char* data,
                                                          std::size_t size,
                                                          unsigned long long version);

}  // namespace Serialization
