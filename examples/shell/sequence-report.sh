#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Super-resolves every window of a folder of frames with the kelvo-sr tool and lists, from
# its JSON record, each result with its reference frame and the frames it skipped. The exit
# code of the tool tells a script what happened: 0 all well, 2 results with warnings, 1 none.
# Usage: sequence-report.sh FRAMES_FOLDER OUTPUT_FOLDER [KELVO_SR]
set -uo pipefail
frames=$1
output=$2
tool=${3:-kelvo-sr}

"$tool" sequence "$frames" -o "$output" --json "$output/run.json" --jobs 2
status=$?
case $status in
    0) echo "every frame used" ;;
    2) echo "results written with warnings" ;;
    *) echo "no result (exit code $status)" >&2; exit "$status" ;;
esac
# The record is plain JSON; Python's standard library reads it.
python3 - "$output/run.json" <<'PYTHON'
import json, sys
run = json.load(open(sys.argv[1]))
print(f"{run['command']} with kelvo-sr {run['version']}, values: {run['values']} ({run['unit']})")
for result in run["results"]:
    print(f"  {result['result']}: reference {result['reference']}, {result['pass_ms']:.0f} ms")
for skipped in run["skipped"]:
    print(f"  skipped {skipped['file']}: {skipped['reason']}")
PYTHON
