#!/usr/bin/env bash
# Installs what is missing, Debian's libraries for arm64 among it, builds the programs for aarch64 on
# a machine of another architecture, and starts them by qemu-user: the tests of functions, then a
# sample, dumps and repairs of each layout, which must print and write what the native programs do.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh
. scripts/shards.sh

dpkg --print-foreign-architectures | grep -qx arm64 || as_root dpkg --add-architecture arm64
install_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}" g++-aarch64-linux-gnu qemu-user-static
# The same libraries, but for those of headers alone, which suit every architecture.
libraries=()
for name in "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}"; do
    [[ $name == *-dev ]] || continue
    dpkg-query -W -f='${Architecture}\n' "$name" | grep -qx all || libraries+=("$name:arm64")
done
install_packages "${libraries[@]}"

step "Build"
cmake --preset release >/dev/null
cmake --build --preset release --parallel "$(nproc)" --target zu_tier zu_tierctl -- --quiet
cmake --preset aarch64 >/dev/null
cmake --build --preset aarch64 --parallel "$(nproc)" --target zu_tier zu_tierctl unit_tests -- --quiet

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work"/{emulated,native,aarch64}
for name in zu_tier zu_tierctl unit_tests; do
    printf '#!/bin/sh\nexec qemu-aarch64-static -cpu max %q "$@"\n' "$PWD/build-aarch64/$name" \
        >"$work/emulated/$name"
    chmod +x "$work/emulated/$name"
done

# A death test of the time zones starts the test program again, which the kernel cannot without the
# emulator. Every bit of the largest blocks takes minutes, and reaches the same code.
ZU_TIER_FLIPS=500 ZU_TIER_PLAN_ROUNDS=50 ZU_TIER_RESCUE_SAMPLES=5 \
    GTEST_FILTER='-TimeZonesDeathTest.*:*.EveryBitIsToldInLayoutV3' \
    run_tests "unit, for aarch64" "$work/emulated/unit_tests"

# go_through LAYOUT TABLE...: a sample device with an entry of each table damaged, and its repair. All
# that is printed stays in the current directory. A repair of V2 gives up which block an extent is.
go_through() {
    local layout=$1 table damage=() no version
    shift
    for table in "$@"; do damage+=(--damage "$table:1:bit"); done
    zu_tierctl sample --layout "$layout" "${damage[@]}" "$layout.img"
    zu_tierctl check "$layout.img" >"$layout.found" || echo "status $?" >>messages
    for table in super "$@"; do
        no=1 version=()
        if [ "$table" = super ]; then no=0 version=(-v "${layout#v}"); fi
        zu_tier -l tier.log -p "$layout.img" -c "dump_$table" >"$layout.$table.dump"
        zu_tierctl template "$layout.img" "$table" "$no" >"$layout.$table.json"
        zu_tier -l tier.log -p "$layout.img" -c "repair_$table" "${version[@]}" \
            -f "$layout.$table.json" -y >"$layout.$table.repair"
    done
    zu_tierctl check "$layout.img" >"$layout.left" || echo "status $?" >>messages
} 2>>messages

step "Dumps and repairs"
export TZ=UTC
for programs in native aarch64; do
    path=$PWD/build
    if [ "$programs" = aarch64 ]; then path=$work/emulated; fi
    (
        PATH=$path:$PATH
        cd "$work/$programs"
        go_through v1 brick inode extent
        go_through v2 brick inode extent
        go_through v3 brick inode shard hot extent
        grep --quiet '^error:' v?.found
        if grep '^error:' v[13].left; then exit 1; fi
    )
done
diff --recursive "$work/native" "$work/aarch64"
echo "$(find "$work/native" -type f | wc -l) files are equal"

step "Counts"
echo "$passed passed, $failed failed, $skipped skipped"
[ "$failed" -eq 0 ] && [ "$passed" -gt 0 ] && [ "$skipped" -eq 0 ]
