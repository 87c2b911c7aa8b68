#!/usr/bin/env bash
# Fails when a tracked C or C++ source differs from its clang-format output.
set -euo pipefail
clang_format=$1
root=$2
cd "$root"
files=$(git ls-files '*.c' '*.cc' '*.h' 2>/dev/null || find include src platform tools examples tests bench -name '*.[ch]' -o -name '*.cc')
"$clang_format" --dry-run --Werror $files
echo "clang-format: $(echo "$files" | wc -w) files clean"
