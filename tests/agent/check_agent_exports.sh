#!/usr/bin/env bash
# The loadable agent exports its eight entry points and nothing else, and
# every symbol it needs resolves in the libraries it links (libmessage,
# protobuf, libevent, the C and C++ runtimes).
set -euo pipefail
library=$1

expected="OnConnect OnDataIn OnDescribeConfig OnDisconnect OnInit OnMyInit OnPeekInterface OnRoutine"
exported=$(nm -D --defined-only "$library" | awk '$2 ~ /^[TDBVWRiu]$/ {print $3}' | sed 's/@.*//' | sort | xargs)
if [[ "$exported" != "$expected" ]]; then
  echo "exported symbols differ"
  echo "  expected: $expected"
  echo "  found:    $exported"
  exit 1
fi

unresolved=$(ldd -r "$library" 2>&1 | grep -i "undefined symbol" || true)
if [[ -n "$unresolved" ]]; then
  echo "symbols that no linked library provides:"
  echo "$unresolved"
  exit 1
fi
echo "exports: $exported"
