#!/usr/bin/env bash
# The bash completion of kest_client, driven as bash drives it (COMP_WORDS split at "=" as
# COMP_WORDBREAKS does, COMP_LINE, COMP_POINT), once on its own and once under bash-completion
# when that is installed. The cases are a table: the words typed and the completions expected.
#   bash tests/completion/kest_client_completion_test.sh [COMPLETION_FILE]
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
script=${1:-$here/../../completion/kest_client.bash}
[ -f "$script" ] || { echo "no completion file $script" >&2; exit 2; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/conf.d"
touch "$work/script.kest" "$work/scores.txt" "$work/conf.d/a.conf" "$work/-x"

run_suite() {  # run_suite MODE: prints one line per failure, then "N passed, M failed"
  bash --norc --noprofile -s "$1" "$script" "$work" <<'EOF'
mode=$1 script=$2 work=$3
if [ "$mode" = bash-completion ]; then
  . /usr/share/bash-completion/bash_completion || exit 2
fi
. "$script"
cd "$work" || exit 2
pass=0 fail=0
# check "WORD..." EXPECTED: the line is the words joined, the cursor at its end; a word "="
# joins its neighbours without blanks, as on a real command line.
check() {
  local expected=$2 line="" w prev=""
  read -r -a COMP_WORDS <<<"$1"
  [[ $1 == *' ' ]] && COMP_WORDS+=("")
  for w in "${COMP_WORDS[@]}"; do
    if [[ -z $line ]]; then line=$w
    elif [[ $w == = || $prev == = ]]; then line+=$w
    else line+=" $w"; fi
    prev=$w
  done
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1)) COMP_LINE=$line COMP_POINT=${#line}
  COMPREPLY=()
  _kest_client kest_client "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
  local got
  got=$(printf '%s\n' "${COMPREPLY[@]}" | sed 's:/$::' | LC_ALL=C sort | tr '\n' ' ')
  got=${got% }
  if [[ $got == "$expected" ]]; then
    pass=$((pass + 1))
  else
    fail=$((fail + 1)); echo "FAIL [$mode] '$line': got '$got', want '$expected'"
  fi
}
all_long="--config --execute --file --format --help --host --ignore-err --interactive --no-header --nounicode --null --output --passfile --ping --port --quiet --raw-output --timeout --timing --tries --unicode --version"
# "-?" stays itself although the file "-x" matches it as a pattern.
all="$all_long -? -P -a -c -e -f -h -i -n -o -p -r -t -u -v"
formats="ascii csv html json markdown raw tsv unicode vertical"
# One case a line: the words typed (the cursor after the last; a trailing blank starts an empty
# word), "=>", and the sorted completions expected (nothing: none may be offered).
while IFS= read -r row; do
  [[ -z $row || $row == '#'* ]] && continue
  words=${row%%=>*} expected=${row#*=>}
  words=${words% } expected=${expected# }
  check "kest_client $words" "$expected"
done <<ROWS
# Option names, long and short.
--ou => --output
--p => --passfile --ping --port
--f => --file --format
--no => --no-header --nounicode
--ti => --timeout --timing
--in => --interactive
--qu => --quiet
-- => $all_long
- => $all
-p -i  => $all
# After an option without a value, the options again.
--no-header  => $all
--quiet --timing --interactive -- => $all_long
# Classic output modes after -o; every format name after --format, in both spellings.
-o  => ascii html raw unicode
-o u => unicode
--output = r => raw
-n --output h => html
--format  => $formats
--format = => $formats
--format a => ascii
--format = c => csv
--format h => html
--format j => json
--format = m => markdown
--format r => raw
--format t => tsv
--format u => unicode
--format v => vertical
--format x =>
# File names after -f, -a and -c, also after the new options.
-f s => scores.txt script.kest
--file scr => script.kest
--file = scr => script.kest
-a sc => scores.txt script.kest
--passfile = sco => scores.txt
-c conf.d/ => conf.d/a.conf
--config co => conf.d
--interactive -f s => scores.txt script.kest
--format csv -c co => conf.d
# A value that is a number, a query or a text: nothing, not even file names.
-P  =>
-t 3 -e  =>
--timeout  =>
--timeout s =>
--timeout = 1 =>
--null  =>
--null s =>
--null = s =>
# No positional arguments.
query.txt =>
ROWS
echo "$pass passed, $fail failed"
[ "$fail" -eq 0 ]
EOF
}

status=0
run_suite plain || status=1
if [ -f /usr/share/bash-completion/bash_completion ]; then
  run_suite bash-completion || status=1
else
  echo "bash-completion not installed: checked without it only"
fi
exit $status
