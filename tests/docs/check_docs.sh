#!/usr/bin/env bash
# Each built manual page renders with man -l without a warning, and each bash
# completion file loads in a shell with bash-completion, registers its tool and
# completes WORD to EXPECTED after the tool's name.
# Usage: check_docs.sh MANDIR COMPLETIONDIR PAGE... -- TOOL:WORD:EXPECTED...
set -uo pipefail
mandir=$1 compdir=$2; shift 2
pages=() tools=()
while [ $# -gt 0 ] && [ "$1" != -- ]; do pages+=("$1"); shift; done
[ $# -gt 0 ] && shift
tools=("$@")
fail=0
for page in "${pages[@]}"; do
  file=$mandir/$page
  if [ ! -s "$file" ]; then echo "FAIL: $file missing or empty"; fail=1; continue; fi
  text=$(MANWIDTH=80 man --warnings -l "$file" 2>/tmp/check_docs.err.$$ | col -b)
  if [ -s /tmp/check_docs.err.$$ ]; then echo "FAIL: man -l $page warns:"; cat /tmp/check_docs.err.$$; fail=1; fi
  for section in NAME SYNOPSIS DESCRIPTION; do
    grep -q "^$section" <<<"$text" || { echo "FAIL: $page has no $section section"; fail=1; }
  done
  echo "ok: $page renders ($(wc -l <<<"$text") lines)"
done
rm -f /tmp/check_docs.err.$$
for probe in "${tools[@]}"; do
  IFS=: read -r tool word expected <<<"$probe"
  file=$compdir/$tool
  if [ ! -s "$file" ]; then echo "FAIL: completion $file missing"; fail=1; continue; fi
  out=$(bash --norc --noprofile -c '
    source /usr/share/bash-completion/bash_completion 2>/dev/null
    source "$1" && complete -p "$2" || exit 1
    fn=$(complete -p "$2" | sed -n "s/.*-F \([^ ]*\) .*/\1/p")
    COMP_WORDS=("$2" "$3"); COMP_CWORD=1; COMP_LINE="$2 $3"; COMP_POINT=${#COMP_LINE}
    "$fn" "$2" "$3" "$2"
    echo "replies: ${COMPREPLY[*]}"' _ "$file" "$tool" "$word" 2>&1)
  if [ $? -ne 0 ] || ! grep -q "^replies:.*\b$expected\b" <<<"$out"; then
    echo "FAIL: completion of $tool '$word' does not offer $expected: $out"; fail=1
  else echo "ok: completion of $tool '$word': $(tail -1 <<<"$out")"; fi
done
exit $fail
