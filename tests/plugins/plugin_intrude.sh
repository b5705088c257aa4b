#!/bin/bash
# Sample plugin: tries what a confined plugin must not do unless its rule allows it, and says for
# each whether it was allowed: truncate the file $1, create a file in the directory $2, signal its
# parent (the agent), connect to TCP port $3 on 127.0.0.1.
file=$1 directory=$2 port=$3
say() { if "$2" 2>/dev/null; then echo "$1 allowed"; else echo "$1 refused"; fi; }
truncate_file() { : >"$file"; }
create_file() { : >"$directory/intruder"; }
signal_agent() { kill -0 "$PPID"; }
connect_port() { exec 3<>"/dev/tcp/127.0.0.1/$port"; }
say truncate truncate_file
say create create_file
say signal signal_agent
say connect connect_port
