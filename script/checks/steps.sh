#!/usr/bin/env bash
# What script/test and script/check share: steps that are counted, each with a log of its own in build/test-logs, and
# the closing line. To be sourced from the top folder.

logs=build/test-logs
passed=0
failed=0
jobs=$(nproc)
mkdir -p "$logs"

# record NAME PASSED FAILED SECONDS
record() {
    passed=$((passed + $2))
    failed=$((failed + $3))
    printf '%-34s %4d passed, %d failed  (%d s)\n' "$1" "$2" "$3" "$4"
    if [ "$3" -ne 0 ]; then
        echo "--- end of $logs/$1.log"
        grep -vE '^\[ *(OK|RUN|-+)' "$logs/$1.log" | tail -n 60 || true
        echo "---"
    fi
}

# step NAME COMMAND...: counts as one test.
step() {
    local name=$1 start=$SECONDS
    shift
    if "$@" > "$logs/$name.log" 2>&1 < /dev/null; then
        record "$name" 1 0 $((SECONDS - start))
    else
        record "$name" 0 1 $((SECONDS - start))
        return 1
    fi
}

# ctest_suite PRESET [CTEST_ARGUMENT...]: counts each test. A run without any is a failure.
ctest_suite() {
    local preset=$1 name=tests-$1 start=$SECONDS good bad
    shift
    ctest --preset "$preset" -j "$jobs" "$@" > "$logs/$name.log" 2>&1 < /dev/null || true
    good=$(grep -cE 'Test +#[0-9]+: .* Passed ' "$logs/$name.log" || true)
    bad=$(grep -cE 'Test +#[0-9]+: .*\*\*\*' "$logs/$name.log" || true)
    [ "$good" -gt 0 ] || bad=$((bad + 1))
    record "$name" "$good" "$bad" $((SECONDS - start))
}

# build PRESET [OPTION...]: gives way to the boards that run beside it.
build() {
    cmake --preset "$1" && nice -n 5 cmake --build --preset "$1" -j "$jobs" "${@:2}"
}

# The last line, and the status: 0 when nothing failed.
close() {
    echo "$passed passed, $failed failed"
    [ "$failed" -eq 0 ]
}
