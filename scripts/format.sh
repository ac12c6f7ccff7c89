#!/usr/bin/env bash
# clang-format over every tracked C++ source and header (.clang-format at the root).
#   scripts/format.sh           reformats the files in place
#   scripts/format.sh --check   changes nothing; lists each file that differs and fails if any does
set -euo pipefail
cd "$(dirname "$0")/.."
# The entry scripts of the README install what is missing (scripts/install-deps.sh); this one
# only uses what is there.
if ! command -v clang-format >/dev/null; then
    echo "format: clang-format not found (bash scripts/install-deps.sh installs it)" >&2
    exit 1
fi
mapfile -t files < <(git ls-files '*.cpp' '*.h')
if [ "${1:-}" = "--check" ]; then
    failed=0
    for f in "${files[@]}"; do
        if ! clang-format --dry-run --Werror "$f" >/dev/null 2>&1; then
            echo "not formatted: $f"
            failed=1
        fi
    done
    [ "$failed" -eq 0 ] && echo "format: ${#files[@]} files formatted"
    exit "$failed"
fi
clang-format -i "${files[@]}"
