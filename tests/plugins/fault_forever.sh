#!/bin/sh
# Fault plugin that never ends: creates the file named by its first argument to say it has started,
# then sleeps for ever with its standard output open. Only a kill ends it.
: >"$1"
exec /bin/sleep infinity
