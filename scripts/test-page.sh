#!/bin/bash
# The tests of the simulator's page, in a browser. SCREENSHOTS names a folder that keeps their pictures.
# Usage: test-page.sh BUILD, the build tree with the programs.
set -eu
cd "$(dirname "$0")/.."
build=$(realpath "${1:?test-page.sh: needs the build tree}")
(cd tests/page && npm ci --ignore-scripts --no-audit --no-fund)
cmp tests/page/node_modules/htm/preact/standalone.module.js apps/sim/web/vendor/preact.js ||
    { echo 'apps/sim/web/vendor/ is not what tests/page/package-lock.json pins: see make web'; exit 1; }

exec 9>/tmp/cloudmgr_subconn.lock
flock -w 300 9 || { echo 'another demo or test holds /tmp/cloudmgr_subconn.lock'; exit 1; }
export CLOUDTUNNEL_SIM=$build/apps/sim/cloudtunnel-sim CLOUDTUNNEL_MODULE=$build/apps/module/cloudtunnel-module
node --test tests/page/page_test.mjs 9>&-
