# The job list both engine tests hand to their engine (sourced by them): four
# lines, the third of which fails with status 3, and the check of what the
# tasks wrote, which reports through the caller's fail.
write_plan() {
  printf '%s\n' 'echo alpha' 'echo beta' 'echo gamma; exit 3' 'echo delta' >"$1"
}
check_results() {
  local results=$1 expected=(alpha beta gamma delta) i got
  for i in 0 1 2 3; do
    got=$(cat "$results/$i.txt" 2>/dev/null || true)
    [ "$got" = "${expected[$i]}" ] || fail "task $i wrote '$got', expected '${expected[$i]}'"
  done
}
