#!/bin/bash
# manual.sh DIRECTORY QEL WRITTEN: mandoc reports no fault in the manual pages, those that QEL has made in DIRECTORY and those
# in WRITTEN; each command has one, and so has each reference.
set -uo pipefail
pages=$1 qel=$2 written=$3
faults=0
fault() { echo "$*"; faults=1; }

command -v mandoc >/dev/null || { echo "no mandoc here"; exit 1; }
for page in "$pages"/qel*.1 "$written"/qelstd*.[578]; do
    # Pages that are not installed cannot be found; the check that they are made follows below.
    said=$(mandoc -Tlint -Wstyle "$page" | grep -v 'referenced manual not found')
    [[ -z $said ]] || fault "$said"
done
while read -r reference; do
    [[ -f $pages/$reference || -f $written/$reference ]] || fault "no page $reference"
done < <(sed -n 's/^\.Xr \(qel[a-z-]*\) \([0-9]\).*/\1.\2/p' "$pages"/qel*.1 "$written"/* | sort -u)
while read -r command; do
    [[ -f $pages/qel-$command.1 ]] || fault "no page for $command"
done < <("$qel" --help | sed -n '/^Commands:/,/^$/s/^  \([a-z][a-z]*\) .*/\1/p')
[[ $("$qel" man ns) == "$(cat "$pages/qel-ns.1")" ]] || fault "'qel man ns' is another page"
exit $faults
