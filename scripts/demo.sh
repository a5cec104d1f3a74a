#!/usr/bin/env bash
# An operator's day in a minute: installs what is missing, builds the tool, makes a sample device
# with a damaged inode, finds the inode, rehearses its repair, commits it and looks again.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/packages.sh

install_packages "${BUILD_PACKAGES[@]}" jq mount
cmake --preset release >/dev/null
cmake --build --preset release --parallel "$(nproc)" -- --quiet

export TZ=UTC PATH=$PWD/build:$PATH
work=$(mktemp -d)
cd "$work"
device=sample.img
cleanup() {
    if [ -b "$device" ]; then losetup -d "$device"; fi
    rm -rf "$work"
}
trap cleanup EXIT

bold='' plain=''
if [ -t 1 ]; then bold=$'\033[1m' plain=$'\033[0m'; fi
say() { printf '\n%s# %s%s\n' "$bold" "$*" "$plain"; }

# run COMMAND: prints a command line, then runs it.
run() {
    printf '\n$ %s\n' "$1"
    eval "$1"
}

say "A sample device: a V1 layout with one damaged inode"
run "zu_tierctl sample --layout v1 --bricks 3 --inodes 48 --blocks 64 --damage inode:7 $device"
if [ "$(id -u)" -eq 0 ] && loop=$(losetup --find --show "$device" 2>/dev/null); then
    device=$loop
    echo "attached to $device"
fi
tool="zu_tier -l tier.log -p $device"

say "What is it? The super block"
run "$tool -c dump_super | jq ."

say "The bricks that it caches"
run "$tool -c dump_brick -g use=1 | jq ."

say "The first two files of brick 0"
run "$tool -c dump_inode -g owner=0 | jq '.[:2]'"

say "Is anything damaged? Error records only: 14 is a failed check, 5 a read error"
run "$tool -c dump_brick -g error=1; echo"
run "$tool -c dump_inode -g error=1 2>/dev/null | jq ."
run "$tool -c dump_extent -g error=1; echo"

say "The log holds the damaged inode as it stands on the device"
run "grep -o '{\"checksum.*}' tier.log | tail -n 1 | jq . | tee damaged.json"

say "The repair file: the same values under the repair keys, times in nanoseconds"
cat >to_repair.jq <<'JQ'
def ns: strptime("%Y-%m-%d %H:%M:%S") | mktime * 1000000000;
{ i_no: .no, i_use: .use,
  i_atime: (.atime | ns), i_ctime: (.ctime | ns), i_mtime: (.mtime | ns), i_dtime: (.dtime | ns),
  i_uuid: .uuid, i_size: .size, i_priority: .priority, i_brick_no: .brick_no, i_unlink: .unlink }
JQ
run "jq -f to_repair.jq damaged.json | tee inode.json"

say "A dry run checks the file and shows the entry; the device is not written"
run "$tool -c repair_inode -f inode.json | jq ."

offset=$($tool -c repair_inode -f inode.json | jq .meta_offset)
say "Keep the old block, commit with -y"
run "dd if=$device of=inode-7.block bs=4096 skip=$((offset / 4096)) count=1 status=none"
run "$tool -c repair_inode -f inode.json -y | jq -c '{no, checksum, meta_offset}'"

say "Look again: nothing is damaged, and inode 7 is back"
run "$tool -c dump_inode -g error=1; echo"
run "$tool -c dump_inode -n 7 | jq ."
