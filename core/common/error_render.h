#pragma once

#include "core/common/error_record.h"
#include "core/common/message_table.h"
#include "core/common/string.h"

namespace Common {

// Stands for "no trace level" when a record is rendered.
inline constexpr unsigned int kNoTraceLevel = 255;

// Appends the text of one record, in the words of the current message table:
//
//   Error 0xfa000b: message
//   | trace level: error            with a trace level
//   | channel: name                 with a channel, not null
//   | line: 0x8efe7e9c26b66db4
//   | file: enterprise/common/por/property_holder:36
//   | function: PropertyHolder
//   | TraceLevel: 0x1               the parameters
//
// `header` is the row of the first word. Line feeds in texts are followed by "| ".
void RenderRecord(String& out, const ErrorRecord& record, MessageRow header,
                  unsigned int level = kNoTraceLevel, const char16_t* channel = nullptr);

// Appends the text of a whole chain, record by record; level and channel go to the first one. Null
// is success.
void RenderChain(String& out, const ErrorRecord* head, unsigned int level = kNoTraceLevel,
                 const char16_t* channel = nullptr);

}  // namespace Common
