#!/bin/bash
# Compares the kinds of events in the page of the simulator with the rows of the source: each stands there, under its
# detail. Usage: events_doc_test.sh SOURCE PAGE
set -u
source=$1 page=$2
rows() {
    tr '\n' ' ' <"$source" | grep -oE 'Kind::[a-z_]+, *(\.name = )?"[a-z-]+", *(\.detail = )?Detail::[a-z]+' |
        sed -E 's/.*"([a-z-]+)".*Detail::([a-z]+)/\2 \1/'
}
page_rows() {
    awk '/^### / { detail = $2; sub(/:$/, "", detail) } /^## / { detail = "" }
         /^\| `/ && detail { gsub(/`/, "", $2); print detail, $2 }' "$page"
}
[ "$(rows | wc -l)" -gt 50 ] || { echo 'no kinds found in the source'; exit 1; }
diff <(rows | sort) <(page_rows | sort)
