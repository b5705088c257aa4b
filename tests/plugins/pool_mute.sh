#!/bin/sh
# Sample plugin that prints nothing, so that every run of it fails; each run appends the time it
# started, in seconds since the epoch with nanoseconds, as one line to the file named by its first
# argument.
/bin/date +%s.%N >>"$1"
