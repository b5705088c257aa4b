#!/bin/sh
# Sample plugin: prints nothing and exits with its first argument (default 0).
exit "${1:-0}"
