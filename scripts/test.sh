#!/bin/sh
# Builds everything and runs every test: the fuzz targets' short bounded runs first, then the
# whole suite (unit, process-level and the real-ptp4l tests). Exits non-zero if anything fails.
set -u
cd "$(dirname "$0")/.."

sh scripts/install-deps.sh || exit 1

jobs=$(nproc 2>/dev/null || echo 2)
status=0

# A test leaves nothing behind. The project's temporary files all start with "ostpmc" in /tmp;
# what another run on this machine makes meanwhile would be reported too.
tmp_before=$(ls -d /tmp/ostpmc* 2>/dev/null)

echo "== fuzz targets (clang, ASan+UBSan, bounded runs)"
if cmake --preset fuzz >/dev/null && cmake --build --preset fuzz -j "$jobs"; then
    ctest --preset fuzz || status=1
else
    echo "test: the fuzz build failed" >&2
    status=1
fi

echo "== build and test suite"
if cmake --preset ci >/dev/null && cmake --build --preset ci -j "$jobs"; then
    # Nothing new in the build tree after the build but ctest's own records.
    touch build/ci/.suite-start
    ctest --preset ci -j "$jobs" || status=1
    leftovers=$(find build/ci -newer build/ci/.suite-start ! -type d ! -path 'build/ci/Testing/*')
    if [ -n "$leftovers" ]; then
        printf 'test: the suite left files in the build tree:\n%s\n' "$leftovers" >&2
        status=1
    fi
else
    echo "test: the build failed" >&2
    status=1
fi
leftovers=$(ls -d /tmp/ostpmc* 2>/dev/null | grep -vxF "$tmp_before")
if [ -n "$leftovers" ]; then
    printf 'test: the tests left files in /tmp:\n%s\n' "$leftovers" >&2
    status=1
fi
exit $status
