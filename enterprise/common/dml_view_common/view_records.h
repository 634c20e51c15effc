#pragma once

#include <vector>

#include "enterprise/common/por/fwd.h"

// What travels between a client and a service. The fields stand in the order in which they travel;
// view_record_formats.h says how. Units that came from outside may be null anywhere.

namespace Dml {

// What a reader asks for. Both units may be null.
struct ViewSpec {
  Por::SharedUnit pattern;  // which objects
  Por::SharedUnit options;  // how the view is to be made
};

namespace ViewManagement {

inline constexpr unsigned int kUpdateCreated = 0;
inline constexpr unsigned int kUpdateUpdated = 1;
inline constexpr unsigned int kUpdateDeleted = 2;

// One change of one object.
struct ViewUpdate {
  unsigned int type = kUpdateCreated;  // as it came: other values are possible
  Por::SharedUnit key;                 // the object (created) or its key
  Por::SharedUnit packed_update;       // the difference (updated)
};

// Asks for a transmission: all updates of one connection together.
struct SubscriptionSpec {};

// A transmission.
struct Subscription {
  unsigned int id = 0;
};

// What to add to a transmission.
struct TopicSpec {
  unsigned int subscription = 0;  // the transmission's id
  ViewSpec interest;
};

// Names one interest of a transmission.
struct TopicID {
  unsigned int subscriber = 0;  // the transmission's id
  unsigned int interest = 0;    // the channel's number
};

// An interest that has been added.
struct Topic {
  TopicID id;
  std::vector<Por::SharedUnit> content;  // the snapshot
};

// What a pull brings.
struct SubscriptionContent {
  // Of all interests, in the service's order.
  std::vector<ViewUpdate> topic_updates;
};

}  // namespace ViewManagement
}  // namespace Dml
