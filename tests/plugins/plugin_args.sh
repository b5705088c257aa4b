#!/bin/sh
# Sample plugin: prints each of its arguments in brackets, one a line.
for argument in "$@"; do
  printf '[%s]\n' "$argument"
done
