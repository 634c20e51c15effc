#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "enterprise/common/dml_view_common/view_records.h"

namespace ObjProbeService {

// The methods of the view manager, by number.
enum class ViewMethod : std::uint32_t {
  kOpenDynamicView = 1,
  kOpenStaticView = 2,
  kAcquireUpdates = 3,
  kCloseView = 4,
  kSubscribe = 5,
  kAddInterest = 6,
  kReadSubscription = 7,
  kRemoveInterest = 8,
  kUnsubscribe = 9,
};

// Whether a service of that version of the interface has the method.
bool HasMethod(std::uint32_t number, unsigned int interface_version);
const char* GetMethodName(ViewMethod method);

// What a request asks for. Fields that its method doesn't have stay as they are.
struct ViewRequest {
  Dml::ViewSpec spec;     // OpenDynamicView, OpenStaticView, AddInterest; its units may be null
  unsigned int view = 0;  // AcquireUpdates, CloseView
  unsigned int subscriber = 0;  // the transmission; from AddInterest on
  unsigned int channel = 0;     // RemoveInterest
  std::size_t size = 0;         // bytes of the packet
};

// Reads a packet of a client, which may hold anything. All that the method needs must be there and
// in form, a unit that is not null whole; a number that is none is 0, which names nothing. What
// else the packet holds, such as the initial values of results, is skipped.
// Throws Common::Error kUnreadableRequest with the reason in its chain.
ViewRequest ReadViewRequest(ViewMethod method, const std::vector<unsigned char>& packet);

}  // namespace ObjProbeService
