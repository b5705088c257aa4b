#!/bin/sh
# Sample plugin: sends SIGTERM to its whole process group (the `trap 'kill 0' EXIT` idiom, without
# dying of it), then says whether it leads that group.
trap '' TERM
kill 0
read -r pid comm state ppid group rest </proc/$$/stat
if [ "$group" = "$pid" ]; then echo "group leader"; else echo "in group $group"; fi
