#!/bin/sh
# Sample plugin: prints its first argument and a line break, then kills itself with SIGKILL.
printf '%s\n' "$1"
kill -KILL $$
