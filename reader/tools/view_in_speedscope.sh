#!/usr/bin/env bash
# Opens what `vorx report --chrome` wrote in the speedscope viewer inside headless Chromium and
# saves a screenshot, to look at a collection without a desktop. Not run by CI.
#
#   view_in_speedscope.sh <results dir | trace.json> [screenshot.png]
#
# A results directory is turned into Chrome trace JSON first with `vorx report DIR --chrome`
# (the vorx program: $VORX, else build*/bin/vorx of this tree). The viewer is the speedscope npm
# package, installed outside the tree in $VIEWER_DIR (default /tmp/vorx-viewer); Chromium is
# Debian's package. Everything runs offline: the viewer's page and the profile are local files.
set -euo pipefail

usage() { echo "usage: $0 <results dir | trace.json> [screenshot.png]" >&2; exit 2; }
[[ $# -ge 1 && $# -le 2 ]] || usage
input=$1
shot=${2:-$PWD/speedscope.png}
viewer_dir=${VIEWER_DIR:-/tmp/vorx-viewer}
here=$(cd "$(dirname "$0")" && pwd)
tree=$(cd "$here/../.." && pwd)
work=$(mktemp -d /tmp/vorx-view.XXXXXX)

# 1. The Chrome trace.
if [[ -d $input ]]; then
  vorx=${VORX:-}
  if [[ -z $vorx ]]; then
    vorx=$(ls -t "$tree"/build*/bin/vorx 2>/dev/null | head -n 1 || true)
  fi
  [[ -x $vorx ]] || { echo "$0: no vorx program found: set VORX=/path/to/vorx" >&2; exit 1; }
  json=$work/trace.json
  "$vorx" report "$input" --no-progress --chrome "$json" > "$work/summary.txt"
elif [[ -f $input ]]; then
  json=$(cd "$(dirname "$input")" && pwd)/$(basename "$input")
else
  echo "$0: $input is neither a results directory nor a file" >&2
  exit 1
fi

# 2. The viewer and the browser.
if [[ ! -f $viewer_dir/node_modules/speedscope/dist/release/index.html ]]; then
  mkdir -p "$viewer_dir"
  (cd "$viewer_dir" && npm install --no-audit --no-fund speedscope >/dev/null)
fi
if ! command -v chromium >/dev/null; then
  if [[ $(id -u) == 0 ]]; then
    apt-get install -y chromium >/dev/null
  else
    echo "$0: chromium is not installed: apt-get install -y chromium" >&2
    exit 1
  fi
fi

# 3. speedscope loads a profile handed to it as a script that calls loadFileFromBase64 (what
#    its own command line does), named in the page's #localProfilePath.
loader=$work/profile.js
node -e '
  const fs = require("fs");
  const [json, out] = process.argv.slice(1);
  const b64 = fs.readFileSync(json).toString("base64");
  fs.writeFileSync(out, "speedscope.loadFileFromBase64(" + JSON.stringify(require("path").basename(json)) +
                        ", " + JSON.stringify(b64) + ")");
' "$json" "$loader"
page="file://$viewer_dir/node_modules/speedscope/dist/release/index.html#localProfilePath=$loader"

# 4. A screenshot from a fresh profile directory, nothing fetched from the network.
chromium --headless --no-sandbox --disable-gpu --disable-quic --no-first-run --disable-background-networking \
  --disable-component-update --disable-sync --user-data-dir="$work/chromium-profile" \
  --allow-file-access-from-files --window-size=1600,1000 --virtual-time-budget=10000 \
  --screenshot="$shot" "$page" 2> "$work/chromium.log" || { cat "$work/chromium.log" >&2; exit 1; }
echo "screenshot: $shot"
echo "(trace: $json; work files in $work)"
