#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Usage: check_spdx.sh SOURCE_DIR
# Every tracked source, script and build file names its licence in an
# SPDX-License-Identifier line at its top (after a #! line, if any). Data
# and documents are exempt: Markdown, plain text other than CMakeLists.txt,
# the package lists, the licence itself.
top=$1
cd "$top" || exit 1
if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
  files=$(git ls-files)
else
  files=$(find . -path ./build -prune -o -path ./.git -prune -o -type f -print | sed 's|^\./||')
fi
missing=0
checked=0
for f in $files; do
  case $f in
    CMakeLists.txt|*/CMakeLists.txt) ;;
    *.md|*.txt|*.list|*.depends|*.json|LICENSE|.gitignore|*/.gitignore|fuzz/corpus/*) continue ;;
  esac
  [ -f "$f" ] || continue
  checked=$((checked + 1))
  if ! head -n 3 "$f" | grep -q 'SPDX-License-Identifier: Apache-2\.0'; then
    echo "no SPDX-License-Identifier line at the top: $f"
    missing=$((missing + 1))
  fi
done
[ $missing -eq 0 ] && echo "licence lines ok: $checked files"
[ $missing -eq 0 ]
