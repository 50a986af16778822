#!/bin/sh
# pipe_samples_test.sh SAMPLES: the Python client writes the message that pipe_test.cpp replays, and
# rejects values that no message can carry.
set -u
samples=$1
failures=0
request=$(python3 -c 'import json, sys; print(json.load(open(sys.argv[1]))["request"])' \
  "$samples/python.message")
show() { python3 "$samples/vx_client.py" --show "$@"; }
message=$(mktemp)
trap 'rm -f "$message"' EXIT
show 9 "$request" >"$message" && cmp "$message" "$samples/python.message" || failures=1
for id in -1 4294967296; do
  if show $id '{}' >/dev/null 2>&1; then echo "failed: takes the command $id"; failures=1; fi
done
[ $failures = 0 ] && echo passed
exit $failures
