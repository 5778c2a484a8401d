#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Lines of test code (tests/, fuzz/) against lines of code (src/, port/,
# sim/, tools/), in the C and C++ sources: blank lines and // comment lines
# left out. The second figure also leaves out the lines of /* */ comments.
# Usage: scripts/test-ratio.sh   (from anywhere in the tree)
set -eu
cd "$(dirname "$0")/.."

# Prints two counts: without // lines, and without /* */ comment lines as well.
count() {
  files=$(find "$@" -type f \( -name '*.c' -o -name '*.cc' -o -name '*.cpp' -o -name '*.h' \
          -o -name '*.hpp' \) 2>/dev/null | sort)
  [ -n "$files" ] || { echo "0 0"; return; }
  # shellcheck disable=SC2086
  awk '
    FNR == 1 { block = 0 }
    {
      line = $0
      sub(/^[ \t]+/, "", line); sub(/[ \t]+$/, "", line)
      if (line == "" || line ~ /^\/\//) next
      n++
      if (block) {
        if (index(line, "*/")) { block = 0; line = substr(line, index(line, "*/") + 2)
                                 sub(/^[ \t]+/, "", line); if (line == "") next }
        else next
      }
      if (line ~ /^\/\*/) {
        if (!index(substr(line, 3), "*/")) { block = 1; next }
        rest = substr(line, index(substr(line, 3), "*/") + 4)
        sub(/^[ \t]+/, "", rest)
        if (rest == "") next
      }
      strict++
    }
    END { print n + 0, strict + 0 }' $files
}

existing() { for d in "$@"; do [ -d "$d" ] && printf '%s ' "$d"; done; }

# shellcheck disable=SC2046
tests=$(count $(existing tests fuzz))
# shellcheck disable=SC2046
code=$(count $(existing src port sim tools))
echo "$tests $code" | awk '{
  printf "tests %d lines, code %d lines: %.1f%% (target at most 33.3%%)\n", $1, $3, 100 * $1 / $3
  printf "without /* */ comment lines too: tests %d, code %d: %.1f%%\n", $2, $4, 100 * $2 / $4 }'
