#!/bin/sh
# Drives the veltconf command (its path and any emulator in front of it are
# the arguments) on throwaway files and checks the files' bytes, the output
# and the exit status of each use.
set -u
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
check() {  # check NAME EXPECTED ACTUAL
  [ "$2" = "$3" ] || { failures=$((failures + 1)); printf 'FAILED %s\n  expected: [%s]\n  actual:   [%s]\n' "$1" "$2" "$3"; }
}
conf=$work/veltinfo.conf
"$@" set "$conf" unique velt_junior
check "set creates a missing file with one line" "unique=velt_junior" "$(cat "$conf")"
printf '# comment\nhostname = "nas one"\nMTUValue=1500\n' > "$conf"
check "get prints the cleaned value" "nas one" "$("$@" get "$conf" hostname)"
"$@" get "$conf" missing 2>/dev/null
check "get of a missing key exits 1" "1" "$?"
"$@" set "$conf" MTUValue 9000
check "set replaces the line in place" "$(printf '# comment\nhostname = "nas one"\nMTUValue=9000')" "$(cat "$conf")"
"$@" addline "$conf" MTUValue "dhcp=yes" 0x200
check "addline 0x200 inserts after the match" "dhcp=yes" "$(sed -n 4p "$conf")"
"$@" delline "$conf" "dhcp=" 0x2
check "delline removes the matching line" "3" "$(wc -l < "$conf" | tr -d ' ')"
printf '[global]\nworkgroup = HOME\n[homes]\npath=/h\n' > "$work/smb.conf"
check "section lists the section's keys" "path=/h" "$("$@" section "$work/smb.conf" homes)"
"$@" --help >/dev/null
check "--help exits 0" "0" "$?"
"$@" frobnicate 2>/dev/null
check "an unknown command exits 2" "2" "$?"
[ "$failures" -eq 0 ]
