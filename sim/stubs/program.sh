#!/bin/sh
# Stand-in for @PROGRAM@ in the appliance sandbox: records its call as
# "<program path> <args...>" in /var/log/stub-calls.log and exits with the
# status chosen in /etc/stub-status/<name>.<first argument> or
# /etc/stub-status/<name> (0 when neither exists).
program='@PROGRAM@'
name=${program##*/}

if [ $# -gt 0 ]; then
  echo "$program $*" >>/var/log/stub-calls.log
else
  echo "$program" >>/var/log/stub-calls.log
fi

status=0
for choice in "/etc/stub-status/$name.$1" "/etc/stub-status/$name"; do
  if [ -r "$choice" ]; then
    read -r status <"$choice"
    break
  fi
done
exit "$status"
