#!/usr/bin/env sh
# Rebuilds the sample data files in samples/ from their TSV sources here,
# one folder per file and one TSV per section:
#   samples/src/build.sh [path/to/quarvel]
set -eu
here=$(cd "$(dirname "$0")" && pwd)
quarvel=${1:-quarvel}
"$quarvel" encrypt --kind checklist "$here/macchecklist" "$here/../macchecklist.dat"
"$quarvel" encrypt --kind checklist "$here/userchecklist" "$here/../userchecklist.dat"
"$quarvel" encrypt --kind package "$here/macpcklist" "$here/../macpcklist.dat"
"$quarvel" encrypt --kind filter "$here/macfilterlist" "$here/../macfilterlist.dat"
"$quarvel" encrypt --kind font "$here/fontchecklist" "$here/../fontchecklist.dat"
