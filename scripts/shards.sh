# Sourced by the other scripts: runs test programs in parallel and counts their tests.

passed=0 failed=0 skipped=0
runs=0 # of the tool, as far as the tests record them

# step TITLE: prints the next step and the time since the start.
step() { printf '\n== %s [%d:%02d]\n' "$1" $((SECONDS / 60)) $((SECONDS % 60)); }

# run_shard RESULTS PROGRAM ARGUMENT...: runs a part of a program's tests, chosen by the
# environment. Prints only failures.
run_shard() {
    local file=$1/$GTEST_SHARD_INDEX
    shift
    timeout --kill-after=10 600 "$@" --gtest_brief=1 --gtest_output="xml:$file.xml" \
        >"$file.log" 2>&1 || cat "$file.log"
}
export -f run_shard

# sum PATTERN FILE: the sum of all numbers that match.
sum() { { grep -oP "$1" "$2" || true; } | awk '{ sum += $1 } END { print sum + 0 }'; }

# run_tests TITLE PROGRAM ARGUMENT...: runs a GoogleTest program's tests on every processor and adds
# to the counts. A part that ends early counts as one failure.
run_tests() {
    step "Test: $1"
    shift
    local results shards=$((4 * $(nproc))) shard
    results=$(mktemp -d)
    for ((shard = 0; shard < shards; shard++)); do echo "$shard"; done |
        GTEST_TOTAL_SHARDS=$shards xargs -P "$(nproc)" -I '{}' \
            env GTEST_SHARD_INDEX='{}' bash -c 'run_shard "$@"' run_shard "$results" "$@"
    local file tests failures skips
    for ((shard = 0; shard < shards; shard++)); do
        file=$results/$shard.xml
        if [ ! -s "$file" ]; then
            failed=$((failed + 1))
            continue
        fi
        tests=$(grep -c '<testcase .*status="run"' "$file" || true)
        skips=$(grep -c '<testcase .*result="skipped"' "$file" || true)
        failures=$(grep -m1 -oP '<testsuites .*failures="\K[0-9]+' "$file")
        passed=$((passed + tests - failures - skips))
        failed=$((failed + failures))
        skipped=$((skipped + skips))
        runs=$((runs + $(sum 'name="runs" value="\K[0-9]+' "$file")))
    done
    rm -r "$results"
}
