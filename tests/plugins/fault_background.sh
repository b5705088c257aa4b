#!/bin/sh
# Fault plugin that leaves a background process holding its standard output: creates the file
# named by its first argument, starts a subshell in the background that waits for the file named by
# its second argument (giving up after about 30 seconds), prints "foreground done" and exits at
# once. Its output ends only when the background subshell ends.
: >"$1"
(
  tries=0
  while [ ! -e "$2" ] && [ "$tries" -lt 600 ]; do
    /bin/sleep 0.05
    tries=$((tries + 1))
  done
) &
printf 'foreground done\n'
