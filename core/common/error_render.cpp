#include "core/common/error_render.h"

#include <cstdio>
#include <string_view>

#include "core/common/text.h"

namespace Common {

namespace {

constexpr std::u16string_view kNewLine = u"\n| ";

void AppendNumber(String& out, const char* format, unsigned long long number) {
  char text[24];
  const int length = std::snprintf(text, sizeof text, format, number);
  out.append(text, text + length);
}

void AppendHex(String& out, std::uint64_t number) {
  AppendNumber(out, "0x%llx", number);
}

// Appends text with each of its lines below the one before.
void AppendLines(String& out, std::u16string_view text) {
  for (std::size_t feed; (feed = text.find(u'\n')) != text.npos; text.remove_prefix(feed + 1)) {
    out.append(text.substr(0, feed)).append(kNewLine);
  }
  out.append(text);
}

// Begins a line of the form "| name: ".
void BeginLine(String& out, std::u16string_view name) {
  out.append(kNewLine).append(name).append(u": ");
}

void AppendLevel(String& out, unsigned int level) {
  switch (level) {
    case 1:
      out.append(GetMessageText(MessageRow::LevelDebug));
      break;
    case 2:
      out.append(GetMessageText(MessageRow::LevelInformation));
      break;
    case 3:
      out.append(GetMessageText(MessageRow::LevelWarning));
      break;
    case 4:
      out.append(GetMessageText(MessageRow::LevelError));
      break;
    case 5:
      out.append(GetMessageText(MessageRow::LevelCritical));
      break;
    default:
      AppendNumber(out, "%llu", level);
  }
}

void AppendParameter(String& out, const ErrorRecord& record, const std::string& name) {
  BeginLine(out, Utf8ToString(name.c_str()));
  const ErrorRecordOperations& operations = *record.operations;
  if (const char16_t* wide = operations.GetWide(&record, name.c_str())) {
    AppendLines(out, wide);
  } else if (const char* ansi = operations.GetAnsi(&record, name.c_str())) {
    AppendLines(out, Utf8ToString(ansi));
  } else {
    AppendHex(out, operations.GetNumber(&record, name.c_str()));
  }
}

}  // namespace

void RenderRecord(String& out, const ErrorRecord& record, MessageRow header, unsigned int level,
                  const char16_t* channel) {
  out.append(GetMessageText(header)).append(u" ");
  AppendHex(out, record.code);
  String message;
  record.operations->GetMessage(message, &record);
  if (!message.empty()) {
    out.append(u": ");
    AppendLines(out, message);
  }
  if (level != kNoTraceLevel) {
    BeginLine(out, GetMessageText(MessageRow::TraceLevel));
    AppendLevel(out, level);
  }
  if (channel != nullptr) {
    BeginLine(out, GetMessageText(MessageRow::Channel));
    out.append(channel);
  }
  BeginLine(out, GetMessageText(MessageRow::Line));
  AppendHex(out, record.location);
  if (record.file != nullptr) {
    BeginLine(out, GetMessageText(MessageRow::File));
    out.append(Utf8ToString(record.file)).append(u":");
    AppendNumber(out, "%llu", record.line);
  }
  if (record.function != nullptr) {
    BeginLine(out, GetMessageText(MessageRow::Function));
    out.append(Utf8ToString(record.function));
  }
  ParameterNames names(record);
  for (std::string name; names.Next(name);) AppendParameter(out, record, name);
}

void RenderChain(String& out, const ErrorRecord* head, unsigned int level,
                 const char16_t* channel) {
  if (head == nullptr || head->code == 0) {
    out.append(GetMessageText(MessageRow::Success));
    return;
  }
  RenderRecord(out, *head, MessageRow::ErrorHeader, level, channel);
  for (const ErrorRecord* record = head->next; record != nullptr && record->code != 0;
       record = record->next) {
    out.append(u"\n|").append(kNewLine);
    RenderRecord(out, *record, MessageRow::ReasonHeader);
  }
}

}  // namespace Common
