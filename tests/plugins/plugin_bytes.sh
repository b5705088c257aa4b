#!/bin/sh
# Sample plugin: prints its first argument as a printf format, so octal escapes such as \377 (an
# invalid UTF-8 byte), \000 (NUL) or \047 (a quote) give exact bytes; exits with its second
# (default 0). No line break is added.
printf "$1"
exit "${2:-0}"
