#!/bin/sh
# Sample plugin that holds its worker: writes its pid into the file named by its first argument to
# say it has started, then waits for the file named by its second argument to appear and prints
# "released".
# The wait gives up after about ten seconds (or the third argument's number of 50 ms steps) so
# that a failed test never leaves a worker stuck.
echo $$ >"$1"
tries=0
while [ ! -e "$2" ] && [ "$tries" -lt "${3:-200}" ]; do
  /bin/sleep 0.05
  tries=$((tries + 1))
done
printf 'released\n'
