#pragma once

#include "core/include/file/file.h"
#include "core/xml/xml_tag.h"

namespace Core {

// Reads a document into `document`, whose former tree ends first. The first four bytes decide the
// kind: "BXML" begins a binary document (core/xml/binary.h), anything else is XML in UTF-8 as
// core/xml/xml_tokenizer.h describes it.
//
// True: the document was read whole and the file has not failed; a comment, an instruction or a
// DOCTYPE behind the root may lack its end. False: it is bad, or the file ended early or failed;
// what was read until then stays in `document`, to be dropped. A binary document without an element
// is no failure: true, and no root.
//
// `line` (from 1) and `column` (from 1) are always set: where the last token stands, which after
// false is the one that could not be accepted; for text that isn't UTF-8, its first bad byte.
// A binary document gives 1 and 1.
//
// Reads from where the file stands, by i_file::Read alone; may read beyond the end of the document.
// Neither depth nor size is limited: nothing recurses, and memory grows with the bytes that came,
// not with what a length in the document promises. Throws std::bad_alloc and nothing else.
bool ReadDocument(XmlDocument& document, i_file& file, unsigned int& line, unsigned int& column);

}  // namespace Core
