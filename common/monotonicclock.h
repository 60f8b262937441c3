#pragma once

#include <QtGlobal>

#include <functional>

// Milliseconds on a clock that never jumps (the wall clock may). Everything
// that waits (reconnect, retries, codec timeouts) reads time through one of
// these, so tests can hand in a virtual clock instead of sleeping.
using MonotonicClock = std::function<qint64()>;

// The system's steady clock, counted from the first call.
MonotonicClock systemMonotonicClock();
