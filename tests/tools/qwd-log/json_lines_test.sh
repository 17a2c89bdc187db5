#!/bin/sh
# qwd-log --json on awkward input: every output line must load with Python's
# json module, and no input line may be lost.
set -eu
viewer=$1
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
log=$dir/Quillmor_40.5.21.71902_WatchdogLogger_5_0.0
{
  printf '{"account_id": "acct"},%77s\n' ''
  printf '{"level": "INFO", "timestamp": 1, "metadata" : {"router_timestamp" : "2026-11-23 07:41:52", "c_file": "a.cc", "line": 1 }, "message": "bytes \377\300 esc \\u0001 ok "},\n'
  printf 'raw "quotes" \\ back\001slash\ttab \351\n'
  printf '{"level": "CRASH", "message": "cut'
} > "$log"
printf '\n{ "level": "INFO", "message": "<--- Log file end --->" }\n' >> "$dir/Quillmor_40.5.21.71902_WatchdogLogger_5_0.1"
"$viewer" --help | grep -q "^Usage: qwd-log"  # on standard output, status 0
"$viewer" --json "$dir" > "$dir/out"
python3 - "$dir/out" <<'PY'
import json, sys
records = [json.loads(line) for line in open(sys.argv[1], encoding="utf-8")]
assert len(records) == 3, records
assert records[0]["level"] == "INFO" and records[0]["line"] == 1, records[0]
assert records[0]["message"].startswith("bytes \ufffd\ufffd esc \x01 ok"), records[0]
assert records[1]["unparsed"].startswith('raw "quotes" \\ back\x01slash'), records[1]
assert records[2]["unparsed"].endswith('"cut'), records[2]
PY
