#pragma once

namespace Common {

struct StackWalkParameters {
  // Greatest number of frames.
  unsigned int max_frames = 0;
  // Gets the number of the frame, from 0 (WalkStack itself), and its text, valid during the call.
  // False stops the walk.
  bool (*callback)(unsigned int frame, const char* text, void* context) = nullptr;
  void* context = nullptr;
};

// Names the frames of the calling thread's stack, the innermost first. A line has the module, the
// demangled symbol, the offset and the address, at most 4096 characters.
// The result is that of the last callback, false when no frame could be taken.
bool WalkStack(const StackWalkParameters& parameters);

}  // namespace Common
