#!/bin/sh
# SPDX-License-Identifier: MIT
# vokt's gdb extension in a real gdb: the subject program stopped at a breakpoint, then the
# core it dumped there, each printed without any `source` command (the extension is
# auto-loaded from a folder laid out as gdb's own auto-load folder), and compared with what
# the program knows it made. Without gdb the test says so and is skipped (status 77).
set -u
subject="$1"; autoload="$2"; debuginfo="${3:-1}"  # 0: the library was built without debug information
command -v gdb >/dev/null 2>&1 || { echo "gdb is not installed (make deps installs it): skipped"; exit 77; }
tmp=$(mktemp -d); trap 'rm -rf "$tmp"' EXIT
session() {  # gdb in batch mode, on the program and the core or run live, printing each name
  gdb -batch -nx -iex "set auto-load scripts-directory $autoload" -iex "set auto-load safe-path $autoload" \
    -iex "set debuginfod enabled off" "$@" -ex "frame 1" \
    -ex "print text" -ex "print *text" -ex "print unset" -ex "print list" -ex "print set" -ex "print map" \
    -ex "print bag" -ex "print code" -ex "print block" -ex "print mutex" -ex "print idle" -ex "print g_release" \
    -ex "print counter" -ex "print worker" -ex "print person" -ex "print any" -ex "print broken" -ex "print none" \
    -ex "print ready" -ex "vokt errors" -ex "vokt error ref" -ex "vokt error 5" -ex "vokt error -2" -ex "vokt log" -ex "vokt mutexes" 2>&1
}
VOKT_CHECK=all session -ex "break inspect_here" -ex run -ex "vokt leaks" -ex "gcore $tmp/core" "$subject" > "$tmp/live"
[ -s "$tmp/core" ] || { cat "$tmp/live"; echo "no core file was dumped"; exit 1; }
session "$subject" "$tmp/core" > "$tmp/core.txt"
failed=0
expect() {  # expect FILE LINE: one line of FILE matches the extended regular expression LINE
  grep -Eq -- "$2" "$1" || { echo "$(basename "$1"): no line matches: $2"; failed=1; }
}
A='0x[0-9a-f]+'
for out in "$tmp/live" "$tmp/core.txt"; do
  expect "$out" "^\\\$1 = $A String \"hello, \\\\\"gdb\\\\\"\" \\(length 12\\)\$"
  expect "$out" "^\\\$2 = String \"hello, \\\\\"gdb\\\\\"\" \\(length 12\\)\$"
  expect "$out" "^\\\$3 = $A String unset\$"
  expect "$out" "^\\\$4 = $A Vector of 2 \\(owning, synchronised\\) = \\{\\[0\\] = $A String \"one\" \\(length 3\\), \\[1\\] = $A CodeName \"Two\" \\(0x29c54\\)\\}\$"
  expect "$out" "^\\\$5 = $A ObjectSet of 1 \\(1 of 8 buckets used\\) = \\{\\[0\\] = $A String \"hello, "
  expect "$out" "^\\\$6 = $A StringMap of 2 = \\{\\[\"colour\"\\] = \"blue\", \\[\"size\"\\] = \"large\"\\}\$"
  expect "$out" "^\\\$7 = $A StringBag of 1 = \\{\\[$A String \"apple\" \\(length 5\\)\\] = 3\\}\$"
  expect "$out" "^\\\$8 = $A CodeName \"Vokt_1\" \\(0x[0-9a-f]+\\)\$"
  expect "$out" "^\\\$9 = $A MemBlock at $A of 24 usable bytes: 30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66\$"
  expect "$out" "^\\\$10 = Mutex held by thread 1 \\(LWP [0-9]+.*\\), depth 2\$"
  expect "$out" "^\\\$11 = Mutex free\$"
  expect "$out" "^\\\$12 = Event not set\$"
  expect "$out" "^\\\$13 = Counter 1 \\(busy\\)\$"
  expect "$out" "^\\\$14 = Thread: thread 2 \\(LWP [0-9]+.*\\), joinable\$"
  expect "$out" "^\\\$15 = $A Person object\$"
  expect "$out" "^\\\$16 = $A CodeName \"Vokt_1\""
  expect "$out" "^\\\$17 = <corrupted or freed object at $A>\$"
  expect "$out" "^\\\$18 = null\$"
  expect "$out" "^\\\$19 = Condition set\$"
  expect "$out" "^0x40000001: Error 404, priority 100: $A String \"no such page: index\" \\(length 19\\)\$"
  expect "$out" "^1 live reference in 1 slots\$"
  expect "$out" "^5: a plain code, not a stored error\$"
  expect "$out" "^-2: out of memory"
  expect "$out" "^size limit: 128 KB\$"
  if [ "$debuginfo" = 1 ]; then
    expect "$out" "^thread 1 \\(LWP [0-9]+\\) holds Mutex $A, depth 2\$"
  else
    expect "$out" "^vokt mutexes: libvokt's debug symbols are not loaded"
  fi
done
expect "$tmp/live" "^[0-9]+ objects and blocks alive \\(listed on the program's standard error\\)\$"
[ "$failed" = 0 ] || { echo "--- live"; cat "$tmp/live"; echo "--- core"; cat "$tmp/core.txt"; exit 1; }
echo "every printer and command shows what the program made, live and in its core"
