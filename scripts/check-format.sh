#!/usr/bin/env bash
# Fails when a C++ file of the repository is not laid out as .clang-format says.
# Fix with: clang-format -i <file>...
set -euo pipefail
cd "$(dirname "$0")/.."
if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
  mapfile -t files < <(git ls-files '*.cpp' '*.h')
else
  mapfile -t files < <(find . \( -name 'build*' -o -name '.git' -o -name 'demo-output' \) -prune -o \( -name '*.cpp' -o -name '*.h' \) -print)
fi
[ ${#files[@]} -gt 0 ] || { echo "check-format: no C++ files found" >&2; exit 1; }
clang-format --dry-run -Werror "${files[@]}"
echo "check-format: ${#files[@]} files laid out as .clang-format says"
