#!/usr/bin/env bash
# Fails, naming file and line, on an #include "..." that breaks the layering
# of the folders (the matrix below, lowest first; the README's "Layout" says
# why). tests/, examples/ and bench/ are exempt. Usage: check_includes.sh [ROOT]
set -euo pipefail
root=${1:-$(cd "$(dirname "$0")/.." && pwd)}
cd "$root"

# The layer of a path inside the tree; empty for an exempt path, "?" for a
# folder the matrix does not know.
layer_of() {
  case $1 in
    tests/*|examples/*|bench/*) echo "" ;;
    platform/kamessageroute/KaThread.*) echo kathread ;;  # the Qt half of the object framework
    platform/kamessageroute/*) echo kamessageroute ;;
    platform/kadata/*) echo kadata ;;
    platform/kabaseui/*) echo kabaseui ;;
    platform/veskui/*) echo veskui ;;
    core/*) echo core ;;
    search/*) echo search ;;
    methods/numeric/*) echo numeric ;;
    methods/*) echo methods ;;
    io/*) echo io ;;
    tune/*) echo tune ;;
    host/*) echo host ;;
    pages/*) echo pages ;;
    lib/*|include/kagrid/*|kagrid/*) echo lib ;;  # the public header, as its users include it
    apps/*/*) echo "app:$(cut -d/ -f2 <<< "$1")" ;;
    python/*) echo app:python ;;
    *) echo "?" ;;
  esac
}

data="kamessageroute kadata"
engine="core search numeric methods"
# What each layer may include besides itself.
allowed_for() {
  case $1 in
    kamessageroute) echo "" ;;
    kadata) echo "kamessageroute" ;;
    core) echo "$data" ;;
    search) echo "$data core" ;;
    numeric) echo "$data core" ;;
    methods) echo "$data core search numeric" ;;
    io) echo "$data $engine" ;;
    tune) echo "$data $engine io" ;;
    kathread) echo "$data" ;;
    kabaseui) echo "" ;;
    veskui) echo "$data kathread kabaseui" ;;
    pages) echo "$data $engine kathread kabaseui veskui" ;;
    host) echo "$data $engine kathread kabaseui veskui pages" ;;
    lib) echo "$data $engine io tune" ;;
    app:*) echo "$data $engine io tune kathread kabaseui veskui pages host lib" ;;
  esac
}

# Single includes the matrix allows against the rule of their folder, each
# with its reason.
#   The variogram's components carry the anisotropic distance of the search
#   (one class, defined with the search by the design's layout).
exceptions="methods/numeric/KaVario.h:search/KaAnisotropy.h"

qt_free=" kamessageroute kadata $engine io tune lib "

status=0
while IFS= read -r file; do
  from=$(layer_of "$file")
  [ -z "$from" ] && continue
  if [ "$from" = "?" ]; then
    echo "$file: the folder is not in the include matrix (add it to scripts/check_includes.sh)"
    status=1
    continue
  fi
  dir=$(dirname "$file")
  while IFS=: read -r line text; do
    if [[ $text =~ ^[[:space:]]*#[[:space:]]*include[[:space:]]*\"([^\"]+)\" ]]; then
      target=${BASH_REMATCH[1]}
      [ -f "$dir/$target" ] && target=$(realpath -m --relative-to=. "$dir/$target")
      to=$(layer_of "$target")
      [ "$to" = "$from" ] && continue
      grep -qxF "$file:$target" <<< "$exceptions" && continue
      ok=0
      for a in $(allowed_for "$from"); do [ "$a" = "$to" ] && ok=1; done
      if [ $ok = 0 ]; then
        echo "$file:$line: $from may not include $target (${to:-exempt})"
        status=1
      fi
    elif [[ $text =~ ^[[:space:]]*#[[:space:]]*include[[:space:]]*\<(Q[A-Za-z]*)\> ]] && [[ $qt_free == *" $from "* ]]; then
      echo "$file:$line: $from is plain C++ and may not include <${BASH_REMATCH[1]}>"
      status=1
    fi
  done < <(grep -n '^[[:space:]]*#[[:space:]]*include' "$file" || true)
done < <(git ls-files --cached --others --exclude-standard -- '*.h' '*.hpp' '*.cpp' '*.cc' '*.inc' 2>/dev/null ||
         find . -path ./build\* -prune -o \( -name '*.h' -o -name '*.cpp' -o -name '*.inc' \) -print | sed 's|^\./||')

[ $status = 0 ] && echo "includes: every folder keeps to its layer"
exit $status
