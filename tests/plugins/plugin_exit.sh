#!/bin/sh
# Sample plugin: prints its first argument and a line break, then exits with its second (default 0).
printf '%s\n' "$1"
exit "${2:-0}"
