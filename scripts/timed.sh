# Sourced by the build scripts. timed NAME COMMAND...: runs the command and
# prints how long it took ("== NAME: 2m05s ==").
timed() {
  timed_name=$1
  shift
  timed_start=$(date +%s)
  "$@"
  timed_seconds=$(($(date +%s) - timed_start))
  printf '== %s: %dm%02ds ==\n' "$timed_name" $((timed_seconds / 60)) $((timed_seconds % 60))
}
