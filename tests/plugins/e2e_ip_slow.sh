#!/bin/sh
# Stands in for `ip -j a` and holds the agent's start-up: creates /tmp/nivo/ip-started, waits for
# /tmp/nivo/ip-release to appear (giving up after about ten seconds so a failed test never leaves
# an agent stuck), then prints what e2e_ip_fixed.sh prints. Run by an agent in its sandbox, where
# /tmp/nivo is the sandbox's own directory.
: >/tmp/nivo/ip-started
tries=0
while [ ! -e /tmp/nivo/ip-release ] && [ "$tries" -lt 200 ]; do
  /bin/sleep 0.05
  tries=$((tries + 1))
done
exec "${0%/*}/e2e_ip_fixed.sh"
