#pragma once

#include <QString>

#include <cstddef>
#include <cstdint>

// The bodies of the libFuzzer targets, shared with the seed replay test of
// the ordinary build. Each returns what went wrong, empty when the input kept
// every invariant.
QString fuzzHexParser(const uint8_t *data, size_t size);
QString fuzzModbusValues(const uint8_t *data, size_t size);
QString fuzzCustomCrcParams(const uint8_t *data, size_t size);
