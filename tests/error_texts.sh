#!/usr/bin/env bash
# Holds the error texts of the sources in the given folder against their rows in its docs/errors.md.
set -euo pipefail
cd "$1"
raised=$(grep -rhoE '"[a-z_/]+\.cpp:[0-9]+( [^"\]+)?' src common | cut -c 2-)
documented=$(sed -nE 's/^\| *\x60([a-z_/]+\.cpp:[0-9]+ [^\x60]+)\x60.*/\1/p' docs/errors.md)
places() { cut -d ' ' -f 1 | sort; }
# What is only logged does not stand in one piece; the tests of its module have the texts.
logged='token_storage.cpp:40|storage/lru_cache_storage.cpp:(109|162|182)'
diff <(places <<<"$raised") <(places <<<"$documented" | grep -vxE "$logged")
while read -r text; do
  grep -qF -- "$text" <<<"$documented" || { echo "not documented: $text" && exit 1; }
done <<<"$raised"
