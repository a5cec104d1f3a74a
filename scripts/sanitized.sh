# Sourced by the other scripts, after packages.sh and shards.sh: runs the tests over the programs of
# the preset sanitize, and reports which part of the sources they have reached.

LINES_AT_LEAST=99
BRANCHES_AT_LEAST=95

# build PRESET [TARGET...]
build() {
    step "Build: $1"
    cmake --preset "$1" >/dev/null
    cmake --build --preset "$1" --parallel "$(nproc)" ${2:+--target "${@:2}"} -- --quiet
}

# Each test program is that of the test build, but for the tests of functions; the programs that it
# starts are watched and counted. Runs at the same time add up their counts; a killed one has none.
run_sanitized_tests() {
    find build-sanitize -name '*.gcda' -delete
    # All zones of the machine, every bit of the largest blocks and many rounds of random damage take
    # long and reach the same code.
    local -x ZU_TIER_FLIPS=500 ZU_TIER_PLAN_ROUNDS=50 ZU_TIER_RESCUE_SAMPLES=5
    GTEST_FILTER='-*.EveryZoneOfTheMachine:*.EveryBitIsToldInLayoutV3:TemplateOfEveryWord.V3' \
        run_tests "unit, under the sanitizers" build-sanitize/unit_tests
    local -x ZU_TIER_PROGRAMS=$PWD/build-sanitize
    GTEST_FILTER='-Interrupted.*' run_tests "fault, under the sanitizers" build/fault_tests
    # The search for leaks takes a third of a short run; fault, memcheck and fuzz tests look for
    # them. Keeping the place of each allocation takes another sixth.
    local -x ASAN_OPTIONS=detect_leaks=0:malloc_context_size=1
    run_tests "cli, under the sanitizers" build/cli_tests
    GTEST_FILTER='-*Large*:Killed*:CheckCause.HalfFormatted*:*TheExpansion*:CheckLive.*' \
        run_tests "tierctl, under the sanitizers" build/tierctl_tests
}

# Prints a table of the sources in tier/. Fails if the tests have reached too little.
report_coverage() {
    step "Coverage"
    mkdir -p build-sanitize/html
    gcovr -j "$(nproc)" --filter tier/ --exclude-throw-branches --exclude-unreachable-branches \
        --txt - --print-summary --html-details build-sanitize/html/index.html \
        --fail-under-line "$LINES_AT_LEAST" --fail-under-branch "$BRANCHES_AT_LEAST" \
        build-sanitize/tier
}
