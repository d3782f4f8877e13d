#!/usr/bin/env bash
# Brings the page's one third-party file, Preact with htm, up to date: page-vendor.sh [VERSION of htm]. Needs npm and the network;
# the build does not: what this script leaves is kept in the repository, with licence and version.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
version=${1:-latest}
target=services/NodeGateway/page/vendor

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
npm install --prefix "$work" --no-save --no-audit --no-fund --ignore-scripts "htm@$version" "preact@10" > /dev/null
read_version() { node -p "require('$work/node_modules/$1/package.json').version"; }

file=$work/node_modules/htm/preact/standalone.module.js
if grep -qE '\beval\b|new Function' "$file"; then
    echo "page-vendor: the file makes programs of texts, which the page's policy forbids" >&2
    exit 1
fi
mkdir -p "$target"
cp "$file" "$target/preact.js"
cp "$work/node_modules/htm/LICENSE" "$target/LICENSE.htm"
cp "$work/node_modules/preact/LICENSE" "$target/LICENSE.preact"
cat > "$target/README.md" <<TEXT
# Third-party code of the page

\`preact.js\` is \`preact/standalone.module.js\` of the npm package htm $(read_version htm), unchanged: htm (Apache-2.0,
\`LICENSE.htm\`) and the Preact that it comes with (MIT, \`LICENSE.preact\`) in one module. \`scripts/page-vendor.sh\` fetched it.
TEXT
cat "$target/README.md"
