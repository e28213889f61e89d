#!/usr/bin/env bash
# Shared by script/test and script/check: counted steps, each with its own log in build/test-logs, and the last line.
# Source it from the top folder.

logs=build/test-logs
passed=0
failed=0
jobs=$(nproc)
mkdir -p "$logs"

# Each job is its own process group, so that what it starts ends with it, and every job ends with the script.
set -m
end_jobs() {
    exec 2> /dev/null # the shell's own remarks on jobs that were ended
    local job
    for job in $(jobs -rp); do kill -TERM -- "-$job" || true; done
    wait
}
trap end_jobs EXIT
# shellcheck disable=SC2154 # of common.sh
trap 'echo "$this_script: interrupted" >&2; exit 130' INT
trap 'echo "$this_script: ended" >&2; exit 143' TERM HUP

# run LOG COMMAND...: runs in the background, so that the shell handles signals at once.
run() {
    "${@:2}" > "$1" 2>&1 < /dev/null &
    wait $!
}

# record NAME PASSED FAILED SECONDS
record() {
    passed=$((passed + $2))
    failed=$((failed + $3))
    printf '%-34s %4d passed, %d failed  (%d s)\n' "$1" "$2" "$3" "$4"
    if [ "$3" -ne 0 ]; then
        echo "--- from $logs/$1.log"
        why "$logs/$1.log"
        explain_full_disk "$PWD/build" "make room there"
        echo "---"
    fi
}

# step NAME COMMAND...: counts as one test; not at all if the command skips itself with status 77.
step() {
    local step=$1 start=$SECONDS status=0
    shift
    run "$logs/$step.log" "$@" || status=$?
    case $status in
        0) record "$step" 1 0 $((SECONDS - start)) ;;
        77) printf '%-34s %s\n' "$step" "$(sed -n 's/.*: skipped: /skipped: /p' "$logs/$step.log")" ;;
        *)
            record "$step" 0 1 $((SECONDS - start))
            return 1
            ;;
    esac
}

# ctest_suite PRESET [CTEST_ARGUMENT...]: counts each test. A run without any is a failure.
ctest_suite() {
    local preset=$1 step=tests-$1 start=$SECONDS good bad
    shift
    run "$logs/$step.log" ctest --preset "$preset" -j "$jobs" "$@" || true
    good=$(grep -cE 'Test +#[0-9]+: .* Passed ' "$logs/$step.log" || true)
    bad=$(grep -E 'Test +#[0-9]+: .*\*\*\*' "$logs/$step.log" | grep -cvF '***Skipped' || true)
    [ "$good" -gt 0 ] || bad=$((bad + 1))
    record "$step" "$good" "$bad" $((SECONDS - start))
    # Tests that need root are skipped otherwise.
    sed -nE 's/.* Test +#[0-9]+: ([^ ]+) .*\*\*\*Skipped.*/  skipped: \1/p' "$logs/$step.log"
}

# build PRESET [OPTION...]: builds with a lower priority than the boards that run meanwhile.
build() {
    cmake --preset "$1" && nice -n 5 cmake --build --preset "$1" -j "$jobs" "${@:2}"
}

# Prints the last line. Returns 0 if nothing failed.
close() {
    echo "$passed passed, $failed failed"
    [ "$failed" -eq 0 ]
}
