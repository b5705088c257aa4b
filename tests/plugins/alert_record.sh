#!/bin/sh
# Sample alerting program: writes its argument vector ($0 first), one item a line, then the line
# "NIVO_TEST_MARK=" followed by that variable of its environment, into the file named by its first
# argument.
{
  printf '%s\n' "$0"
  for argument in "$@"; do
    printf '%s\n' "$argument"
  done
  printf 'NIVO_TEST_MARK=%s\n' "$NIVO_TEST_MARK"
} >"$1"
