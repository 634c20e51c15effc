#pragma once

#include <string>
#include <string_view>

#include "enterprise/serialize/output_buffer.h"

namespace Serialization {

// Writes a text as the content of an element, in one of two forms.
//
// CDATA, where a line feed stands in the text and nothing in it would get lost: no "]]>", no
// control character but tab and line feed, in 16-bit text no lone surrogate and no 0xFFFE or
// 0xFFFF. Line feeds become "\r\n", of which the reader drops the "\r".
//
// Plain, otherwise: "&lt;", "&amp;", and numbers ("&#13;") for what CDATA can't hold, for line
// feeds and tabs, and for each blank at the beginning, at the end and behind a literal blank, since
// the reader folds white space. ">" and quotes are written as they are.
//
// The first form is for 8-bit text, in which each byte is the character of that value.
void AppendXmlText(OutputBuffer& out, std::string_view text);
void AppendXmlText(OutputBuffer& out, std::u16string_view text);

}  // namespace Serialization
