#include "xmodemfuzztarget.h"

#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QString failure = fuzzXmodemReceiver(data, size);
    if (!failure.isEmpty()) {
        std::fprintf(stderr, "%s\n", qPrintable(failure));
        std::abort();
    }
    return 0;
}
