# Sourced by the other scripts: runs test programs in parallel and counts their tests.

passed=0 failed=0 skipped=0
runs=0 # of the tool, as far as the tests record them

# step TITLE: prints the next step and the time since the start.
step() { printf '\n== %s [%d:%02d]\n' "$1" $((SECONDS / 60)) $((SECONDS % 60)); }

# run_shard RESULTS PROGRAM SHARD: runs a part of a program's tests, chosen by the environment. Prints
# only failures.
run_shard() {
    local file=$1/${2##*/}.$3
    GTEST_SHARD_INDEX=$3 timeout --kill-after=10 600 "$2" --gtest_brief=1 \
        --gtest_output="xml:$file.xml" >"$file.log" 2>&1 || cat "$file.log"
}
export -f run_shard

# sum PATTERN FILE: the sum of all numbers that match.
sum() { { grep -oP "$1" "$2" || true; } | awk '{ sum += $1 } END { print sum + 0 }'; }

# run_tests TITLE PROGRAM...: runs the tests of GoogleTest programs, of which GTEST_FILTER may choose
# some, on every processor and adds to the counts. A part that ends early counts as one failure. There
# are two parts more at work than there are processors: many tests wait, for the disk or by intent.
run_tests() {
    step "Test: $1"
    shift
    local results shards=$((4 * $(nproc))) program shard
    results=$(mktemp -d)
    for program in "$@"; do
        for ((shard = 0; shard < shards; shard++)); do echo "$program $shard"; done
    done | GTEST_TOTAL_SHARDS=$shards xargs -P "$(($(nproc) + 2))" -L 1 \
        bash -c 'run_shard "$@"' run_shard "$results"
    for program in "$@"; do
        for ((shard = 0; shard < shards; shard++)); do
            count_tests "$results/${program##*/}.$shard.xml"
        done
    done
    rm -r "$results"
}

# count_tests RESULTS: adds to the counts.
count_tests() {
    local tests failures skips
    if [ ! -s "$1" ]; then
        failed=$((failed + 1))
        return
    fi
    tests=$(grep -c '<testcase .*status="run"' "$1" || true)
    skips=$(grep -c '<testcase .*result="skipped"' "$1" || true)
    failures=$(grep -m1 -oP '<testsuites .*failures="\K[0-9]+' "$1")
    passed=$((passed + tests - failures - skips))
    failed=$((failed + failures))
    skipped=$((skipped + skips))
    runs=$((runs + $(sum 'name="runs" value="\K[0-9]+' "$1")))
}
