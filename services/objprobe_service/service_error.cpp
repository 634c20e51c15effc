#include "services/objprobe_service/service_error.h"

#include "core/common/message_table.h"

namespace ObjProbeService {

namespace {

const char16_t* GetText(std::uint32_t code) {
  switch (code) {
    case kUnreadableRequest:
      return u"The request cannot be read.";
    case kUnknownMethod:
      return u"The service does not have this method.";
    case kUnknownView:
      return u"There is no view with this number on the connection.";
    case kUnknownTransmission:
      return u"There is no transmission with this number on the connection.";
    case kUnknownChannel:
      return u"There is no channel with this number in the transmission.";
    case kSecondTransmission:
      return u"The connection has a transmission already.";
    case kTooManyViews:
      return u"The views and channels of the connection are more, or have larger patterns or more "
             u"objects, than the service takes.";
    case kReplyTooLarge:
      return u"The objects make a larger reply than the service sends. Ask for fewer of them with "
             u"the option \"LimitOptions\".";
    case kUpdatesNotTaken:
      return u"More updates wait than the service keeps, or some were lost with an answer, because "
             u"the client does not take them.";
    case kViewClosing:
      return Common::GetMessageText(Common::MessageRow::DmlViewClosing);
    case kAlreadyRunning:
      return Common::GetMessageText(Common::MessageRow::DmlAlreadyRunning);
    default:
      return nullptr;
  }
}

}  // namespace

Common::Error MakeServiceError(std::uint32_t code, const Common::LineTag& tag) {
  return {code, GetText(code), tag};
}

Common::Error MakeServiceError(std::uint32_t code, const Common::LineTag& tag,
                               const Common::Error& reason) {
  Common::Error error = MakeServiceError(code, tag);
  error.SetReason(reason);
  return error;
}

}  // namespace ObjProbeService
