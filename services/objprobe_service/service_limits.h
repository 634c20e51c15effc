#pragma once

#include <chrono>
#include <cstddef>

namespace ObjProbeService {

// What one client may cost.
struct ServiceLimits {
  // How long a pull waits for something to tell; then it is answered with nothing.
  std::chrono::milliseconds pull_wait{25'000};
  // Updates that wait in a transmission to be pulled, and the memory that they take.
  std::size_t max_queue_records = 100'000;
  std::size_t max_queue_bytes = std::size_t{64} << 20;
  // Updates in the answer to one pull of a transmission, in memory; at least one is sent.
  std::size_t max_pull_bytes = std::size_t{4} << 20;
  // Views and channels of one connection, and the bytes of the requests that made them.
  std::size_t max_views = 1'024;
  std::size_t max_view_bytes = std::size_t{16} << 20;
  // Objects that all views of one connection remember; those with a limit on their objects do.
  std::size_t max_view_objects = std::size_t{4} << 20;
  // Calls of one connection that read the store at a time; more of them wait.
  std::size_t max_reports = 4;
  // Bytes of a reply with a snapshot.
  std::size_t max_reply_bytes = std::size_t{512} << 20;
};

}  // namespace ObjProbeService
