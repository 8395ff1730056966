#!/usr/bin/env bash
# The plug-in's dynamic symbol table defines exactly the five functions of its face.
set -euo pipefail
names=$(nm --dynamic --defined-only "$1" | awk '{print $NF}' | sort | tr '\n' ' ')
want="TOLVANE_XSCCmdCallBack TOLVANE_XSCInformation TOLVANE_XSCInitialize TOLVANE_XSCNtfCallBack TOLVANE_XSCUninitialize "
[ "$names" = "$want" ] || { echo "exported: $names"; echo "wanted:   $want"; exit 1; }
