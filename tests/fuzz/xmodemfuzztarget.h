#pragma once

#include <QString>

#include <cstddef>
#include <cstdint>

// The body of the XMODEM/YMODEM receiver fuzz target, shared with the seed
// replay of the ordinary build. Returns what went wrong, empty when the
// input kept every invariant.
//
// Input layout:
//   byte 0   bits 0-2 variant (modulo 5); bit 3 repair the number complement
//            and check of everything shaped like a block, so the input gets
//            past the checks; bits 4-6 sink fault: 1 open, 2 write, 3 finish
//            fail, anything else none; bit 7 a receive size cap
//   byte 1   with a cap, the cap: 1 + 37 * value bytes; without, the chunk
//            after which the user cancels (0 never)
//   byte 2   k, the number of pacing bytes that follow (0: all at once)
//   k bytes  pacing, used in turn for each chunk: bits 0-3 chunk length
//            (an index into a table, 0 the rest), bits 4-6 time to let pass
//            afterwards (the timer is called after each chunk, due or not),
//            bit 7 hold our writes back until the next chunk
//   rest     the bytes the device sends
QString fuzzXmodemReceiver(const uint8_t *data, size_t size);
