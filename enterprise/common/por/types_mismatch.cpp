#include "enterprise/common/por/types_mismatch.h"

#include <string>

#include "core/common/line_tag.h"
#include "core/common/message_table.h"
#include "core/common/unix/stack_walk.h"
#include "core/common/unix/trace.h"
#include "enterprise/common/por/module_error.h"
#include "enterprise/common/por/unit_operations.h"

namespace Por::Util::Detail {

namespace {

constexpr Common::SourceFile kSource{"enterprise/common/por/types_mismatch"};

constexpr unsigned int kMaxFrames = 32;

void TraceText(const std::string& text) {
  Common::Trace(Common::kTraceInformation, 0, 0, text.c_str());
}

// Mismatches come with malformed records, one by one: without a sink the walk and its texts are
// left out, as nobody would see them.
void TraceStack(const char* maker) {
  if (!Common::IsTraced(Common::kTraceInformation)) return;
  TraceText(std::string("Stack logging from '") + maker + "'");
  Common::StackWalkParameters parameters;
  parameters.max_frames = kMaxFrames;
  parameters.callback = [](unsigned int frame, const char* text, void*) {
    TraceText("Stack frame " + std::to_string(frame) + ": '" + text + "'");
    return true;
  };
  Common::WalkStack(parameters);
}

Common::Error MakeError(const Common::String& text, const Common::LineTag& tag) {
  return Common::MakeTracedError(kPorTypeMismatch, text.c_str(), tag);
}

}  // namespace

Common::Error MakeTypeMismatchError() {
  TraceStack("Por::Util::Detail::MakeTypeMismatchError");
  return Common::MakeTracedError(kPorTypeMismatch,
                                 Common::GetMessageText(Common::MessageRow::PorStructureMismatch),
                                 kSource.At("MakeTypeMismatchError", 50));
}

Common::Error MakeTypeMismatchError(unsigned int expected, unsigned int actual) {
  TraceStack("Por::Util::Detail::MakeTypeMismatchError");
  Common::String text;
  Common::FormatMessage(text, Common::GetMessageText(Common::MessageRow::PorTypeMismatch),
                        {GetTypeName(expected), GetTypeName(actual)});
  return MakeError(text, kSource.At("MakeTypeMismatchError", 62));
}

Common::Error MakePropertyTypeMismatchError(const Name& name, unsigned int expected,
                                            unsigned int actual) {
  TraceStack("Por::Util::Detail::MakePropertyTypeMismatchError");
  Common::String text;
  Common::FormatMessage(text, Common::GetMessageText(Common::MessageRow::PorPropertyTypeMismatch),
                        {name.ToString(), GetTypeName(expected), GetTypeName(actual)});
  return MakeError(text, kSource.At("MakePropertyTypeMismatchError", 69));
}

}  // namespace Por::Util::Detail
