#pragma once

#include <QString>

#include <cstddef>
#include <cstdint>

// The libFuzzer targets' seed inputs (tests/fuzz/corpus/<target>) replayed
// through the same target body by the ordinary test build, so the seeds
// keep passing without clang.
namespace FuzzSeeds {

using Target = QString (*)(const uint8_t *data, size_t size);

// Runs every seed of `target` through `body`; empty when all pass, else the
// first failure as "target/file: why" (or why there was nothing to run).
QString replay(const QString &target, Target body);

} // namespace FuzzSeeds
