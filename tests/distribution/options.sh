#!/bin/bash
# Compares the options of a program with its manual page and its completion.
# Usage: options.sh PROGRAM PAGE COMPLETION
set -euo pipefail
program=$1 page=$2 completion=$3

commands=$("$program" --help | sed -nE '/^Subcommands:/,/^$/s/^  ([a-z]+) .*/\1/p')
options() { grep -oE -e '--[a-z][a-z-]*' | LC_ALL=C sort -u; }
known=$(for command in '' $commands; do
  "$program" ${command:+"$command"} --help | grep -E '^  (-h,)?--'
done | options)
diff <(echo "$known") <(grep '^\*-' "$page" | options)
diff <(echo "$known") <(grep -v '^#' "$completion" | options)
