#!/bin/sh
# Runs a test binary with a private, empty /tmp (a mount namespace of its own,
# shared with nothing else on the machine) and fails when the run leaves
# anything there but the library's own fixed paths. Death-test children run
# in the same namespace, so what they leave is seen too.
#   no_leftovers.sh <test binary> <gtest filter>
if [ "$(id -u)" != 0 ] || ! unshare --mount true 2>/dev/null; then
    echo "skipped: needs root and mount namespaces"
    exit 77
fi
exec unshare --mount --propagation private -- sh -c '
    mount -t tmpfs kvtest /tmp || exit 1
    "$0" --gtest_filter="$1"
    rc=$?
    left=$(ls -A /tmp | grep -v -x -e fifos -e tshell -e management -e unittest.log)
    if [ -n "$left" ]; then
        echo "left behind in /tmp:" $left
        exit 1
    fi
    exit $rc' "$1" "$2"
