#!/bin/sh
# Stand-in for the daemon @PROGRAM@ in the appliance sandbox: records its call
# as "<program path> <args...>" in /var/log/stub-calls.log and exits with the
# status chosen in /etc/stub-status/<name>.<first argument> or
# /etc/stub-status/<name> (0 when neither exists). Called with -D and status
# 0, it leaves a background process named like the daemon, with its pid in
# /var/run/<name>.pid, which records the SIGHUP and SIGTERM it receives and
# ends on SIGTERM. SANDBOX_STUB_QUIET set: the call is not recorded (a daemon
# the sandbox starts before the command).
program='@PROGRAM@'
name=${program##*/}
record() {
  echo "$*" >>/var/log/stub-calls.log
}

if [ "$1" = "--sandbox-serve" ]; then
  trap 'record "$program [SIGHUP]"' HUP
  trap 'record "$program [SIGTERM]"; rm -f "/var/run/$name.pid" "$fifo"; exit 0' TERM
  fifo="/var/run/$name.fifo.$$"
  rm -f "$fifo"
  mkfifo "$fifo" || exit 1
  echo $$ >"/var/run/$name.pid"
  # Opened for reading and writing, the fifo never delivers end of file, so
  # the read waits without a child process until a signal arrives.
  while :; do
    read -r line <>"$fifo"
  done
fi

if [ -z "$SANDBOX_STUB_QUIET" ]; then
  if [ $# -gt 0 ]; then
    record "$program $*"
  else
    record "$program"
  fi
fi

status=0
for choice in "/etc/stub-status/$name.$1" "/etc/stub-status/$name"; do
  if [ -r "$choice" ]; then
    read -r status <"$choice"
    break
  fi
done

if [ "$status" = 0 ]; then
  for arg in "$@"; do
    if [ "$arg" = "-D" ]; then
      rm -f "/var/run/$name.pid"
      "$program" --sandbox-serve </dev/null >/dev/null 2>&1 &
      # Like the daemon, return only once the pid file is there.
      tries=0
      while [ ! -s "/var/run/$name.pid" ] && [ $tries -lt 200 ]; do
        usleep 10000
        tries=$((tries + 1))
      done
      break
    fi
  done
fi
exit "$status"
