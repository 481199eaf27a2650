# Sourced by the benchmark scripts: bench_row adds one row to the closing
# table that bench/run-all prints (a no-op when a script runs on its own).
#   bench_row KEY "THIS PROJECT" "PEER" "RATIO" "GOAL" VERDICT
# KEY names the row in run-all's list; VERDICT is "met" or "NOT met".
bench_row() {
    [ -n "${QVL_BENCH_ROWS:-}" ] || return 0
    # Fields apart by the unit separator, which unlike a tab keeps empty fields.
    local IFS=$'\x1f'
    printf '%s\n' "$*" >>"$QVL_BENCH_ROWS"
}

# verdict CONDITION: "met" when the awk condition holds, "NOT met" otherwise.
verdict() { awk "BEGIN { exit !($1) }" && echo met || echo "NOT met"; }
