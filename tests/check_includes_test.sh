#!/usr/bin/env bash
# scripts/check_includes.sh on a small tree: it names each include that breaks
# the layers (file and line) and fails, and passes the ones that keep to them.
set -uo pipefail
check=$(cd "$(dirname "$0")/.." && pwd)/scripts/check_includes.sh
tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT
mkdir -p "$tree"/{core,search,methods/numeric,pages,host,io,apps/kagrid,tests}
cd "$tree"
printf '#pragma once\n' > search/KaAnisotropy.h
printf '#pragma once\n' > core/KaBase.h
printf '#include "core/KaBase.h"\n#include "search/KaAnisotropy.h"\n' > methods/KaM.cpp
printf '#include "search/KaAnisotropy.h"\n' > methods/numeric/KaVario.h   # the one allowed exception
printf '#include "pages/KaP.h"\n' > host/KaH.cpp
printf '#pragma once\n#include "core/KaBase.h"\n' > pages/KaP.h
printf '#include "host/KaH.h"\n' > tests/t.cpp                            # tests are exempt
printf '#include "io/KaIo.h"\n#include "host/KaH.h"\n' > apps/kagrid/main.cpp
bash "$check" "$tree" > out.txt || { echo "a tree that keeps its layers failed:"; cat out.txt; exit 1; }

printf '#pragma once\n\n#include "search/KaAnisotropy.h"\n' > core/KaBase.h
printf '#include "host/KaH.h"\n' > pages/KaP.cpp
printf '#include <QString>\n' > io/KaIo.cpp
printf '#include "apps/kagrid/x.h"\n' > io/KaIo.h
if bash "$check" "$tree" > out.txt; then echo "violations passed"; exit 1; fi
status=0
for line in "core/KaBase.h:3: core may not include search/KaAnisotropy.h" "pages/KaP.cpp:1: pages may not include host/KaH.h" \
            "io/KaIo.cpp:1: io is plain C++ and may not include <QString>" "io/KaIo.h:1: io may not include apps/kagrid/x.h"; do
  grep -qF "$line" out.txt || { echo "not reported: $line"; status=1; }
done
[ "$(wc -l < out.txt)" = 4 ] || { echo "reported more than the four:"; status=1; }
[ $status = 0 ] || cat out.txt
exit $status
