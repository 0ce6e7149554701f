#!/bin/sh
# Builds everything and runs every test: the fuzz targets' short bounded runs first, then the
# whole suite (unit, process-level and the real-ptp4l tests). Exits non-zero if anything fails.
set -u
cd "$(dirname "$0")/.."

sh scripts/install-deps.sh || exit 1

jobs=$(nproc 2>/dev/null || echo 2)
status=0

echo "== fuzz targets (clang, ASan+UBSan, bounded runs)"
if cmake --preset fuzz >/dev/null && cmake --build --preset fuzz -j "$jobs"; then
    ctest --preset fuzz || status=1
else
    echo "test: the fuzz build failed" >&2
    status=1
fi

echo "== build and test suite"
if cmake --preset ci >/dev/null && cmake --build --preset ci -j "$jobs"; then
    ctest --preset ci -j "$jobs" || status=1
else
    echo "test: the build failed" >&2
    status=1
fi
exit $status
