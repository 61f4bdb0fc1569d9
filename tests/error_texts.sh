#!/usr/bin/env bash
# Compares what the programs and the library can throw, log and print with the rows of
# docs/errors.md. Each string literal that reads like a text (two words, or thrown or logged) must
# be a part of a row, and each row must consist of literals and placeholders.
# Usage: error_texts.sh SOURCE_DIRECTORY
set -euo pipefail
cd "$1"

# "<>" stands for values that are known only at run time. Texts composed by common/json_member.h and
# syslog(3) are written out as they will appear. Help texts are not included.
# shellcheck disable=SC2016 # Perl's variables
literals() {
  find src common daemon cli c -name '*.cpp' -o -name '*.h' | LC_ALL=C sort | xargs perl -0777 -ne '
    (my $file = $ARGV) =~ s{^src/}{};
    my $holds_help = $file =~ /(options|command_line|report)\.cpp$/;
    s{(?<!:)//[^\n]*|^\#.*$}{}gm;
    s{R"\((.*?)\)"}{ (my $raw = $1) =~ s/"/\\"/g; "\"$raw\"" }gse;
    s/\x27(\\.|[^\x27\\])\x27//g;
    s/(?<!\\)"\s*\n\s*"//g;
    s/"%s:%d ([^"]*)",\s*(?:kSource|"[^"]*"),\s*(\d+)/"$file:$2 $1"/g;
    s/(String|Int|Object|Array)Member\([^,;]+, "(\w+)",\s*"([^"]*)"/"$3 invalid type of \\"$2\\", $1 expected"/g;
    s/Expect(Array|String)\([^,;]+,\s*"([^"]*)"/"$2 invalid type, $1 expected"/g;
    my $string = qr/"(?:[^"\\\n]|\\.)*"/;
    for (/((?:[^;"]|$string)+)/g) {
      my $is_raised = /\b(throw |return SystemError|Log\(|syslog\()/;
      for (/($string)/g) {
        next unless /[a-z]{2}/ && ($is_raised || !$holds_help && / /);
        s/^" *| *"$//g; s/\\n//g; s/\\(.)/$1/g; s/%[-+.0-9]*(?:ll?|z|j)?[a-z]/<>/g;
        print "$_\n";
      }
    }' | LC_ALL=C sort -u
}

# The code spans in the first column of the tables.
# shellcheck disable=SC2016 # no command
rows() {
  sed -nE '/^\| `/s/^\| (([^|`]|`[^`]*`)*) \|.*/\1/p' docs/errors.md | grep -oE '`[^`]+`' |
    tr -d '`' | sed -E 's/<[^>]+>/<>/g' | LC_ALL=C sort -u
}

raised=$(literals | grep -vxF -e 'last id' -e 'Zelt token store 1' -e 'not permitted' -e 'malformed payload' -e after)
documented=$(rows)
undocumented=$(while read -r text; do
  grep -qF -- "$text" <<<"$documented" || echo "$text"
done <<<"$raised")
# What is left of a row when the literals are taken out of it.
stale=$(TEXTS=$raised perl -ne '
  BEGIN { $texts = join "|", map { quotemeta } sort { length $b <=> length $a }
    grep { /[a-z]/ } map { split / *<> */ } split /\n/, $ENV{TEXTS} }
  my $row = $_;
  s/$texts//g;
  print $row if s/<>//gr =~ /[a-z]{2}/' <<<"$documented")
[ -z "$undocumented" ] || printf 'no row in docs/errors.md has:\n%s\n' "$undocumented"
[ -z "$stale" ] || printf 'no source has all of this row in docs/errors.md:\n%s\n' "$stale"
[ -z "$undocumented$stale" ]
