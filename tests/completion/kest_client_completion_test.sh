#!/usr/bin/env bash
# The bash completion of kest_client, driven as bash drives it (COMP_WORDS split at "=" as
# COMP_WORDBREAKS does, COMP_LINE, COMP_POINT), once on its own and once under bash-completion
# when that is installed.
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
all_long="--config --execute --file --help --host --ignore-err --nounicode --output --passfile --ping --port --raw-output --tries --unicode --version"
check "kest_client --ou" "--output"
check "kest_client --p" "--passfile --ping --port"
check "kest_client --" "$all_long"
# "-?" stays itself although the file "-x" matches it as a pattern.
all="$all_long -? -P -a -c -e -f -h -i -n -o -p -r -t -u -v"
check "kest_client -" "$all"
check "kest_client -p -i " "$all"
check "kest_client -o " "ascii html raw unicode"
check "kest_client -o u" "unicode"
check "kest_client --output = r" "raw"
check "kest_client -n --output h" "html"
check "kest_client -f s" "scores.txt script.kest"
check "kest_client --file scr" "script.kest"
check "kest_client --file = scr" "script.kest"
check "kest_client -a sc" "scores.txt script.kest"
check "kest_client --passfile = sco" "scores.txt"
check "kest_client -c conf.d/" "conf.d/a.conf"
check "kest_client --config co" "conf.d"
check "kest_client -P " ""
check "kest_client -t 3 -e " ""
check "kest_client query.txt" ""
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
