#!/bin/bash
# Runs real programs with every safe routine of libc probed by a pass-through (tools/sweep_tool.cpp) and
# compares their output with a run without the engine.
#   transparency.sh <kel> <sweep tool> <python embedding program> <work dir>
set -u
kel=$1 tool=$2 py_embed=$3 work=$4
mkdir -p "$work"
cd "$work" || exit 1
failures=0
skipped=0
sweep_switches=${SWEEP_SWITCHES:-}

is_i386() { file -L "$1" 2>/dev/null | grep -q "ELF 32-bit.*Intel 80386"; }

# compare <name> <command...>: runs the command alone and under the engine; stdout must be identical.
compare() {
  local name=$1
  shift
  "$@" > "$name.plain" 2> "$name.plain.err"
  local plain_rc=$?
  rm -f "$name.probes"
  "$kel" -t "$tool" -o "$name.probes" $sweep_switches -- "$@" > "$name.probed" 2> "$name.probed.err"
  local probed_rc=$?
  if [ $plain_rc -ne $probed_rc ] || ! cmp -s "$name.plain" "$name.probed"; then
    echo "FAIL $name: exit $plain_rc alone, $probed_rc under the engine; output differs:"
    diff "$name.plain" "$name.probed" | head -20
    cat "$name.probed.err" | head -20
    failures=$((failures + 1))
  else
    echo "ok   $name ($(wc -c < "$name.plain") bytes of output)"
  fi
}

head -c 3000000 /dev/urandom | base64 > data.txt
if is_i386 /usr/bin/pigz; then
  compare pigz_compress /usr/bin/pigz -p 2 -c data.txt
  /usr/bin/pigz -p 2 -c data.txt > data.txt.gz
  compare pigz_decompress /usr/bin/pigz -p 2 -d -c data.txt.gz
else
  echo "skip pigz: /usr/bin/pigz is not an i386 program (install pigz:i386)"
  skipped=$((skipped + 1))
fi

cat > script.lua <<'LUA'
local t = {}
for i = 1, 200000 do t[i] = (i * 7919) % 100003 end
table.sort(t)
local s = 0
for _, v in ipairs(t) do s = s + v end
print(s, t[1], t[#t], string.format("%q %5.2f", "a\nb", math.pi))
local words = {}
for w in ("the quick brown fox jumps over the lazy dog"):gmatch("%a+") do words[#words + 1] = w:upper() end
print(table.concat(words, ","))
local f = io.open("lua_out.txt", "w") f:write(string.rep("line\n", 1000)) f:close()
local n = 0 for _ in io.lines("lua_out.txt") do n = n + 1 end
print(n, os.time{year=2020, month=1, day=1, hour=0})
print(pcall(error, "boom"))
LUA
if is_i386 /usr/bin/lua5.4; then
  compare lua /usr/bin/lua5.4 script.lua
else
  echo "skip lua: /usr/bin/lua5.4 is not an i386 program (install lua5.4:i386)"
  skipped=$((skipped + 1))
fi

read -r -d '' python_code <<'PY'
import json, hashlib, zlib, re, decimal, fractions, threading, struct, base64, collections, os, tempfile
d = {"k%d" % i: [i, i * 0.5, str(i)] for i in range(3000)}
s = json.dumps(d, sort_keys=True)
print(hashlib.sha256(s.encode()).hexdigest(), len(zlib.compress(s.encode())))
print(re.sub(r"[0-9]+", "#", s[:60]), base64.b64encode(struct.pack("<IdQ", 7, 2.5, 1 << 40)))
print(decimal.Decimal(1) / decimal.Decimal(7), fractions.Fraction(3, 9) ** 5)
print(collections.Counter("abracadabra").most_common(3))
r = []
ts = [threading.Thread(target=lambda i=i: r.append(sum(range(i * 20000)))) for i in range(4)]
[t.start() for t in ts]; [t.join() for t in ts]
print(sorted(r))
with tempfile.TemporaryDirectory() as tmp:
    p = os.path.join(tmp, "f")
    open(p, "w").write("x" * 10000)
    print(os.path.getsize(p), sorted(os.listdir(tmp)))
PY
compare python "$py_embed" "$python_code"

echo "routines under probes in the python run, by image:"
cat python.probes 2>/dev/null
[ $failures -eq 0 ] || exit 1
exit 0
