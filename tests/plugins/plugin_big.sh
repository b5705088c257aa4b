#!/bin/sh
# Sample plugin: prints exactly as many bytes as its first argument says, made of the lines
# "0123456789abcdef".
/usr/bin/yes 0123456789abcdef | /usr/bin/head -c "$1"
