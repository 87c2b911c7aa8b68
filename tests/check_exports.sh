#!/usr/bin/env bash
# Compares the dynamic symbols libqz_cap.so defines with the list of names the
# library exports: nothing more (no C++ or internal names), nothing less.
set -euo pipefail
lib=$1
expected=$2
actual=$(nm -D --defined-only "$lib" | awk '{print $3}' | grep -v '^$' | sed 's/@.*//' | sort -u)
wanted=$(grep -v '^#' "$expected" | grep -v '^$' | sort -u)
extra=$(comm -23 <(echo "$actual") <(echo "$wanted"))
missing=$(comm -13 <(echo "$actual") <(echo "$wanted"))
status=0
if [ -n "$extra" ]; then echo "exported but not in the list:"; echo "$extra"; status=1; fi
if [ -n "$missing" ]; then echo "in the list but not exported:"; echo "$missing"; status=1; fi
[ $status -eq 0 ] && echo "libqz_cap.so exports exactly the $(echo "$wanted" | wc -l) listed names"
exit $status
