#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Lines of test code against lines of code: non-blank lines that are not
# wholly comments, in the C/C++ sources, CMake files and shell scripts.
# Usage: scripts/test-ratio.sh   (from anywhere in the tree)
set -eu
cd "$(dirname "$0")/.."

count() {
  # shellcheck disable=SC2046
  files=$(find "$@" -type f \( -name '*.c' -o -name '*.cc' -o -name '*.cpp' -o -name '*.h' \
          -o -name '*.hpp' -o -name '*.sh' -o -name 'CMakeLists.txt' -o -name '*.cmake' \) \
          2>/dev/null | sort)
  [ -n "$files" ] || { echo 0; return; }
  # shellcheck disable=SC2086
  awk '
    FNR == 1 { block = 0 }
    {
      line = $0
      sub(/^[ \t]+/, "", line); sub(/[ \t]+$/, "", line)
      if (block) {
        if (index(line, "*/")) { block = 0; line = substr(line, index(line, "*/") + 2)
                                 sub(/^[ \t]+/, "", line) }
        else next
      }
      if (line == "") next
      if (line ~ /^\/\//) next
      if (line ~ /^#/ && FILENAME !~ /\.(c|cc|cpp|h|hpp)$/) next
      if (line ~ /^\/\*/) {
        if (index(substr(line, 3), "*/")) {
          rest = substr(line, index(substr(line, 3), "*/") + 4)
          sub(/^[ \t]+/, "", rest)
          if (rest == "") next
        } else { block = 1; next }
      }
      n++
    }
    END { print n + 0 }' $files
}

existing() { for d in "$@"; do [ -d "$d" ] && printf '%s ' "$d"; done; }

# shellcheck disable=SC2046
tests=$(count $(existing tests fuzz))
# shellcheck disable=SC2046
code=$(count $(existing src port sim tools))
awk -v t="$tests" -v c="$code" 'BEGIN {
  printf "tests %d lines, code %d lines: %.1f%% (target at most 33.3%%)\n", t, c, 100 * t / c }'
