#pragma once

#include <QString>

#include <cstddef>
#include <cstdint>

// The body of the Telnet / remote serial port receiver fuzz target, shared
// with the seed replay of the ordinary build. Returns what went wrong, empty
// when the input kept every invariant.
QString fuzzTelnetReceiver(const uint8_t *data, size_t size);
