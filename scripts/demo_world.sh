#!/usr/bin/env bash
# The demonstration's inside; run by demo.sh in the private world, with the folder of the programs.
set -euo pipefail
bin=$1
scripts=$(dirname "${BASH_SOURCE[0]}")
work=/tmp/zorv-demo
tool=$bin/zorv-snapusage
stock=/usr/bin/btrfs
shares=(photos projects mail)
days=10

say() { printf '\n== %s\n' "$*"; }

# ---- The machine: two volumes, the engine at its place -------------------------------------------

make_volume() { # number
  truncate -s 1G "$work/volume$1.img"
  mkfs.btrfs -q "$work/volume$1.img" >/dev/null 2>&1 # it prints what is new in its defaults
  mkdir -p "/volume$1"
  mount -o loop "$work/volume$1.img" "/volume$1"
}

make_share() { # path
  $stock subvolume create "$1" >/dev/null
  mkdir "$1/.snapshots"
}

take_snapshot() { # share path, day
  $stock subvolume snapshot -r "$1" "$1/.snapshots/$(printf 'GMT-2026.11.%02d-03.00.00' "$2")" >/dev/null
}

# ---- What people do on three kinds of shares, a day at a time ------------------------------------

random_text() { # kibibytes: compresses to about three quarters
  head -c $(($1 * 768)) /dev/urandom | base64 -w 76
}

photos_day() { # compressed; a few files anew, one more each day
  local file
  for file in 1 2 3; do random_text 700 >/volume1/photos/album$(((file * $1) % 7)).txt; done
  random_text 300 >"/volume1/photos/day$1.txt"
}

projects_day() { # one image, worked on every day, and a reflinked copy of it
  local disk=/volume1/projects/disk.img
  [ $1 -gt 1 ] || head -c 6M /dev/urandom >$disk
  dd if=/dev/urandom of=$disk bs=64K count=$(($1 % 4 + 2)) conv=notrunc status=none
  dd if=/dev/urandom of=$disk bs=4K count=9 seek=$(($1 * 90)) conv=notrunc status=none
  cp --reflink=always $disk /volume1/projects/disk.copy.img
}

mail_day() { # many small files, most of them inside the metadata
  local n
  for n in $(seq $(($1 == 1 ? 3000 : 150))); do
    printf 'message %d of day %d %0*d\n' "$n" "$1" $((n % 1900)) 7 >"/volume2/mail/$(((n * $1 * 7) % 3000))"
  done
}

say "making two volumes and three shares with $days snapshots each"
mkdir -p "$work"
install -m 755 "$bin/btrfs" /sbin/btrfs
make_volume 1
make_volume 2
make_share /volume1/photos
$stock property set /volume1/photos compression zstd
make_share /volume1/projects
make_share /volume2/mail
for day in $(seq $days); do
  photos_day "$day"
  projects_day "$day"
  mail_day "$day"
  sync
  for path in /volume1/photos /volume1/projects /volume2/mail; do take_snapshot $path "$day"; done
done

# ---- Calculations ---------------------------------------------------------------------------------

say "calculating photos and mail at the same time"
"$tool" run photos >"$work/photos.out" 2>&1 &
photos=$!
"$tool" run mail >"$work/mail.out" 2>&1 &
mail=$!
failed=0
wait $photos || failed=1
wait $mail || failed=1
for share in photos mail; do
  echo "-- $share"
  cat "$work/$share.out"
done
[ $failed = 0 ]

say "starting projects and stopping it in the middle"
"$bin/hold_worker" >"$work/worker" & # the worker stands still from its start, until it is stopped
holder=$!
"$tool" start projects
wait $holder
begin=$(date +%s%N)
"$tool" stop projects
echo "stopped after $((($(date +%s%N) - begin) / 1000000)) ms; what its status says:"
"$tool" status projects || true
grep -q '"status":"stop"' /usr/local/zorvbtrfssnapusage/share_task_status/projects
grep -q '"error_code":"12"' /usr/local/zorvbtrfssnapusage/share_task_status/projects

say "calculating projects to its end"
"$tool" run projects --quiet

# ---- Results --------------------------------------------------------------------------------------

say "results, from the persistent copies"
for share in "${shares[@]}"; do
  ls "/usr/local/zorvbtrfssnapusage/share_task_result/$share/"
  "$tool" show "$share" --format json >"$work/$share.json"
done

# ---- Plans ----------------------------------------------------------------------------------------

# A plan for people and, once more, for the comparison.
make_plan() { # share, options...
  "$tool" plan "$@"
  "$tool" plan "$@" --format json >"$work/$1.plan"
}

say "what comes free if these are deleted?"
make_plan photos --delete GMT-2026.11.02-03.00.00,GMT-2026.11.04-03.00.00,GMT-2026.11.03-03.00.00

say "which of projects must go to free 1 MiB, if the last two stay?"
make_plan projects --free 1M --keep-last 2
say "which of mail, as few as possible, to free 4 MiB?"
make_plan mail --free 4M --fewest

# ---- Held against the kernel ----------------------------------------------------------------------

planned_ids() { # share
  python3 -c 'import json, sys
print(*(step["subvolume_id"] for step in json.load(open(sys.argv[1]))["steps"]))' "$work/$1.plan"
}

# Puts the snapshots of a plan into one quota group.
group_plan() { # share, group, mount
  local id
  $stock qgroup create "$2" "$3"
  for id in $(planned_ids "$1"); do # each says on standard error that a rescan is due
    $stock qgroup assign --no-rescan "0/$id" "$2" "$3" 2>/dev/null
  done
}

say "asking the kernel: quotas on a copy of each volume"
for n in 1 2; do
  umount "/volume$n"
  cp --sparse=always "$work/volume$n.img" "$work/copy$n.img"
  mkdir -p "$work/copy$n"
  mount -o loop "$work/copy$n.img" "$work/copy$n"
  $stock quota enable "$work/copy$n"
  if [ $n = 1 ]; then
    group_plan photos 1/1 "$work/copy$n"
    group_plan projects 1/2 "$work/copy$n"
  else
    group_plan mail 1/1 "$work/copy$n"
  fi
  $stock quota rescan -w "$work/copy$n" >/dev/null
  sync -f "$work/copy$n"
  $stock qgroup show --raw --sync "$work/copy$n" >"$work/kernel$n.txt"
  umount "$work/copy$n"
  mount -o loop "$work/volume$n.img" "/volume$n"
done

say "each number beside the kernel's"
python3 "$scripts/demo_compare.py" $((${#shares[@]} * days)) \
  "$work/photos.json=$work/kernel1.txt" "$work/projects.json=$work/kernel1.txt" \
  "$work/mail.json=$work/kernel2.txt"

# ---- Plans, followed ------------------------------------------------------------------------------

numbers=$((${#shares[@]} * days))

# Deletes what a plan has, for real.
follow_plan() { # share, number of its volume, group
  local shared
  shared=$(awk -v group="$3" '$1 == group { print $3 }' "$work/kernel$2.txt")
  python3 "$scripts/demo_follow.py" "/volume$2" "/volume$2/$1/.snapshots" "$shared" "$work/$1.plan" \
    >"$work/followed" || { cat "$work/followed"; exit 1; }
  head -n -1 "$work/followed"
  numbers=$((numbers + $(tail -n 1 "$work/followed")))
}

say "following the plans: deleting for real"
follow_plan photos 1 1/1
follow_plan projects 1 1/2
follow_plan mail 2 1/1
printf '\nall %d numbers match\n' $numbers
