#!/usr/bin/env bash
# Fails when an include line points up the layer order. Each folder may include
# its own headers and those of the folders before it in LAYERS; `app` and `lab`
# (the two programs) stand together at the top and may not include each other.
# tests/<folder>/ follows the rule of <folder> and may use tests/support/;
# tests/support/ may use every library folder; bench/ and fuzz/ may use everything.
set -euo pipefail
cd "$(dirname "$0")/.."

LAYERS=(common model device surface observation quality search reports tools)
TOP=(app lab)

declare -A rank
for i in "${!LAYERS[@]}"; do rank[${LAYERS[$i]}]=$i; done
for top in "${TOP[@]}"; do rank[$top]=${#LAYERS[@]}; done

if git rev-parse --is-inside-work-tree >/dev/null 2>&1; then
  mapfile -t files < <(git ls-files '*.cpp' '*.h')
else
  mapfile -t files < <(find . \( -name 'build*' -o -name '.git' \) -prune -o \( -name '*.cpp' -o -name '*.h' \) -print |
    sed 's|^\./||')
fi

failures=0
complain() {
  echo "$1: $2" >&2
  failures=$((failures + 1))
}

for file in "${files[@]}"; do
  owner=${file%%/*}
  tests=0
  if [ "$owner" = tests ]; then
    tests=1
    rest=${file#tests/}
    owner=${rest%%/*}
  fi
  [ "$owner" = bench ] && continue
  [ -n "${rank[$owner]+set}" ] || [ "$owner" = support ] || continue

  while IFS=: read -r line target; do
    folder=${target%%/*}
    where="$file:$line"
    if [ "$folder" = tests ]; then
      [ "$tests" = 1 ] || complain "$where" "product code includes test code ($target)"
      continue
    fi
    if [ -z "${rank[$folder]+set}" ]; then
      [ "$folder" = "$target" ] || complain "$where" "includes $target from a folder that has no place in the layers"
      continue
    fi
    if [ "$owner" = support ]; then
      [ "${rank[$folder]}" -lt "${#LAYERS[@]}" ] || complain "$where" "test support includes $target from a program"
      continue
    fi
    if [ "${rank[$folder]}" -gt "${rank[$owner]}" ]; then
      complain "$where" "$owner/ includes $target, which sits above it in the layer order (${LAYERS[*]} < ${TOP[*]})"
    elif [ "${rank[$folder]}" -eq "${rank[$owner]}" ] && [ "$folder" != "$owner" ]; then
      complain "$where" "$owner/ includes $target: the two programs stand beside each other and share only the libraries"
    fi
  done < <(grep -n -o '^[[:space:]]*#[[:space:]]*include[[:space:]]*"[^"]*"' "$file" | sed 's/:.*"\(.*\)"$/:\1/')
done

if [ "$failures" -gt 0 ]; then
  echo "check-layers: $failures include line(s) against the layer order" >&2
  exit 1
fi
echo "check-layers: ${#files[@]} files follow the layer order ${LAYERS[*]} < ${TOP[*]}"
