#!/bin/sh
# Drives the veltconf command on throwaway files and checks the files' bytes,
# the output and the exit status of each use.
set -u
veltconf=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
passes=0

check() {  # check NAME EXPECTED ACTUAL
  if [ "$2" = "$3" ]; then
    passes=$((passes + 1))
  else
    failures=$((failures + 1))
    printf 'FAILED %s\n  expected: [%s]\n  actual:   [%s]\n' "$1" "$2" "$3"
  fi
}

conf=$work/veltinfo.conf
"$veltconf" set "$conf" unique velt_junior
check "set creates a missing file with one line" "unique=velt_junior" "$(cat "$conf")"

printf '# comment\nhostname = "nas one"\nMTUValue=1500\n' > "$conf"
check "get prints the cleaned value" "nas one" "$("$veltconf" get "$conf" hostname)"

"$veltconf" get "$conf" missing 2>/dev/null
check "get of a missing key exits 1" "1" "$?"

"$veltconf" set "$conf" MTUValue 9000
check "set replaces the line in place" "$(printf '# comment\nhostname = "nas one"\nMTUValue=9000')" "$(cat "$conf")"

"$veltconf" addline "$conf" MTUValue "dhcp=yes" 0x200
check "addline 0x200 inserts after the match" "dhcp=yes" "$(sed -n 4p "$conf")"

"$veltconf" delline "$conf" "dhcp=" 0x2
check "delline removes the matching line" "3" "$(wc -l < "$conf" | tr -d ' ')"

printf '[global]\nworkgroup = HOME\n[homes]\npath=/h\n' > "$work/smb.conf"
check "section lists the section's keys" "path=/h" "$("$veltconf" section "$work/smb.conf" homes)"

"$veltconf" --help >/dev/null
check "--help exits 0" "0" "$?"

"$veltconf" frobnicate 2>/dev/null
check "an unknown command exits 2" "2" "$?"

echo "$passes passed, $failures failed"
[ "$failures" -eq 0 ]
