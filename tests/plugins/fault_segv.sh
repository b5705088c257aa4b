#!/bin/sh
# Fault plugin that crashes: prints a line, then ends itself with SIGSEGV (without a core file).
printf 'about to crash\n'
ulimit -c 0
kill -SEGV $$
