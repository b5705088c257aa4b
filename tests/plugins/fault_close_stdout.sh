#!/bin/sh
# Fault plugin that closes its standard output early and runs on: creates the file named by its
# first argument, prints "early", closes its standard output, then waits for the file named by its
# second argument (giving up after about 30 seconds) and exits with status 2.
: >"$1"
printf 'early\n'
exec >&-
tries=0
while [ ! -e "$2" ] && [ "$tries" -lt 600 ]; do
  /bin/sleep 0.05
  tries=$((tries + 1))
done
exit 2
