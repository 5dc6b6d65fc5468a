#pragma once

// Shared with the window tests: waits on the GUI thread's event loop, and the real services.

#include "app/AppServices.h"

#include <functional>

namespace vantrix::testing {

// Waits until `done` holds or `timeoutMs` passes, running the GUI thread's events unless told not to.
bool waitUntil(const std::function<bool()>& done, int timeoutMs = 10000, bool runEvents = true);
// Runs the GUI thread's events for a while, for checks that something does NOT happen.
void runEventsFor(int milliseconds);
// Waits for a worker thread's `done`, then a little longer for what it posts, without running the
// GUI thread's events: the posted results stay queued until the test lets them through.
bool waitHoldingEvents(const std::function<bool()>& done);
// The real services with the real player, on the wall clock, with no sound device.
AppServices realServices();

}  // namespace vantrix::testing
