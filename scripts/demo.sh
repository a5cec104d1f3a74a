#!/usr/bin/env bash
# An operator's day in a minute: installs what is missing, builds the tool, makes a sample device
# with a damaged inode, finds it, prepares and rehearses its repair, commits it and checks again. Then what
# is new on a device of layout V2, how a device of V1 becomes one, and a block of extents on one of V3.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh

install_packages "${BUILD_PACKAGES[@]}" jq mount
cmake --preset release >/dev/null
cmake --build --preset release --parallel "$(nproc)" -- --quiet

export TZ=UTC PATH=$PWD/build:$PATH
work=$(mktemp -d)
cd "$work"
loops=()
cleanup() {
    for loop in "${loops[@]}"; do losetup -d "$loop"; done
    rm -rf "$work"
}
trap cleanup EXIT

# attach IMAGE: makes it the device of $tool, as a block device where that is possible.
attach() {
    local loop
    device=$1
    if [ "$(id -u)" -eq 0 ] && loop=$(losetup --find --show "$1" 2>/dev/null); then
        device=$loop
        loops+=("$loop")
        echo "attached to $device"
    fi
    tool="zu_tier -l tier.log -p $device"
}

bold='' plain=''
if [ -t 1 ]; then bold=$'\033[1m' plain=$'\033[0m'; fi
say() { printf '\n%s# %s%s\n' "$bold" "$*" "$plain"; }

# run COMMAND: prints a command line, then runs it.
run() {
    printf '\n$ %s\n' "$1"
    eval "$1"
}

# finds COMMAND: the same for a command whose status 1 means findings.
finds() {
    printf '\n$ %s\n' "$1"
    ! eval "$1"
}

say "A sample device: a V1 layout with one damaged inode"
run "zu_tierctl sample --layout v1 --bricks 3 --inodes 48 --blocks 64 --damage inode:7 sample.img"
attach sample.img

say "What is it? The super block"
run "$tool -c dump_super | jq ."

say "The bricks that it caches"
run "$tool -c dump_brick -g use=1 | jq ."

say "The first two files of brick 0"
run "$tool -c dump_inode -g owner=0 | jq '.[:2]'"

say "Is anything damaged? Status 1 says so"
finds "zu_tierctl check $device"
run "$tool -c dump_inode -g error=1 2>/dev/null | jq ."

say "The repair file of the damaged inode: what can be read of it, ready to be edited"
run "zu_tierctl template $device inode 7 | tee inode.json"

say "A dry run checks the file and shows the entry; the device is not written"
run "$tool -c repair_inode -f inode.json | jq ."

say "Keep a copy of the metadata, commit with -y"
run "zu_tierctl save $device before.img"
run "$tool -c repair_inode -f inode.json -y | jq -c '{no, checksum, meta_offset}'"

say "What has changed? Exactly one entry; and nothing is damaged any more"
finds "zu_tierctl diff before.img $device"
run "zu_tierctl check $device"

say "What it looks like"
run "zu_tierctl map $device"

say "Layout V2 has room for more inodes after the data; one of these is damaged"
run "zu_tierctl sample --layout v2 --inodes 48 --blocks 64 --expansion 153600 --damage inode:99 v2.img"
attach v2.img

say "Its inodes come as one object of two tables, numbered through; 48 is the first of the second"
run "$tool -c dump_inode -g error=1 2>/dev/null | jq ."
run "$tool -c dump_inode -n 48 | jq ."

say "An extent names the pieces that it holds of its block; the first two of extent 1"
run "$tool -c dump_extent -n 1 | jq '.te_mapped_meta |= .[:2]'"

say "A device whose tables are V2 already and whose super block is not: convert_super works it out"
run "zu_tierctl sample --layout v1 --for-conversion old.img"
attach old.img
run "$tool -c dump_super | tee old.json | jq -c '{version, min_alloc_size, map_cnt, total_extent_size}'"
run "$tool -v 2 -c convert_super -f old.json | tee new.json | jq -c '{version, min_alloc_size, map_cnt, total_extent_size}'"

say "The conversion writes nothing: repair_super commits the line that it printed"
run "$tool -v 2 -c repair_super -f new.json -y | cmp - new.json"
run "$tool -c dump_super | cmp - new.json"
run "$tool -c dump_extent -g error=1; echo"

say "Layout V3 packs shards and extents 512 to a block; here block 3 of the extents is damaged"
run "zu_tierctl sample --layout v3 v3.img"
cp v3.img healthy.img
run "zu_tierctl sample --layout v3 --damage extent:3 --force v3.img"
attach v3.img
run "$tool -c dump_super | jq -c '{version, shard_table_offset, hot_table_offset, extent_table_offset, data_offset}'"
run "$tool -c dump_extent -g error=1 2>/dev/null; echo"

say "An extent belongs to a shard, a shard to a file; from the first shard in use both ways"
run "$tool -c dump_shard -g use=1 | jq '.[0].shards[0]' | tee shard.json"
run "$tool -c dump_inode -n $(jq .ino shard.json) | jq '{no, size, brick_no, blocks}'"
run "$tool -c dump_extent -g owner=$(jq .sno shard.json) 2>/dev/null | jq '.[0].extents[0]'"

say "A block is repaired whole. Its description comes from a copy of the device that is still good"
run "zu_tier -l tier.log -p healthy.img -c dump_extent -n 3 -g use=1 >extents.json"
run "jq -c '{meta_offset, first: .extents[0], count: (.extents | length)}' extents.json"
run "$tool -c repair_extent -f extents.json -y"
run "cmp $device healthy.img && echo 'as good as the copy'"
run "zu_tierctl check $device | tail -n 1"
