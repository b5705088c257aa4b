#!/bin/sh
# Stands in for `ip -j a` with a fixed description of three interfaces: the loopback first, then
# eth9, whose first address entry has an empty "local" (its second entry has one, and must not be
# taken), then eth1 with a usable address.
printf '%s\n' '[{"ifindex":1,"ifname":"lo","address":"00:00:00:00:00:00","addr_info":[{"family":"inet","local":"127.0.0.1"}]},{"ifindex":2,"ifname":"eth9","address":"02:00:00:00:00:09","addr_info":[{"family":"inet","local":""},{"family":"inet","local":"10.9.9.9"}]},{"ifindex":3,"ifname":"eth1","address":"02:42:ac:11:00:02","addr_info":[{"family":"inet","local":"192.0.2.10"}]}]'
