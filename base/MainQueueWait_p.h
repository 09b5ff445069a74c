#pragma once
// Waiting on the GUI thread for work that may itself wait on the GUI thread.
#include "base/ZavoExport.h"

#include <chrono>
#include <functional>

namespace zavo::platform {

/// Runs the main queue's blocks, and nothing else (no Qt events, so no
/// host code re-entered), until done() is true or limit has passed; returns
/// done(). For a teardown on the GUI thread that waits for threads which may
/// be blocked handing a block to the main queue (a frame's synchronous hop,
/// a screen released on a worker). GUI thread only.
ZAVO_EXPORT bool runMainQueueUntil(const std::function<bool()>& done, std::chrono::milliseconds limit);

}  // namespace zavo::platform
