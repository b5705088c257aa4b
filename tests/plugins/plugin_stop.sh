#!/bin/sh
# Sample plugin: closes its standard output, then stops itself with SIGSTOP.
exec >&-
kill -STOP $$
