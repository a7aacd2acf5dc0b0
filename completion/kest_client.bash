# bash completion for kest_client                                  -*- shell-script -*-
#
# Installed as share/bash-completion/completions/kest_client, where bash-completion loads it on
# the first <Tab> after the command; it also works sourced on its own, without bash-completion.
# Completes every option, long and short; file names after -f, -a and -c; the classic output
# modes after -o and all nine format names after --format; host names after -h; nothing after
# an option whose value is a query, a number or a text (-e, -P, -t, --timeout, --null). The
# client takes no other arguments, so options are offered for an empty word too.

_kest_client() {
  local cur prev split=false
  if declare -F _init_completion >/dev/null; then
    local words cword
    _init_completion -s || return
  else
    cur=${COMP_WORDS[COMP_CWORD]}
    prev=${COMP_WORDS[COMP_CWORD - 1]}
    # Without bash-completion, "--file=x" arrives as "--file" "=" "x" (= breaks words).
    if [[ $cur == = ]]; then
      cur="" split=true
    elif [[ $prev == = && $COMP_CWORD -ge 2 ]]; then
      prev=${COMP_WORDS[COMP_CWORD - 2]} split=true
    fi
  fi

  case $prev in
    -f | --file | -a | --passfile | -c | --config)
      if declare -F _filedir >/dev/null; then
        _filedir
      else
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
      fi
      return
      ;;
    -o | --output)
      mapfile -t COMPREPLY < <(compgen -W 'ascii unicode raw html' -- "$cur")
      return
      ;;
    --format)
      mapfile -t COMPREPLY < <(compgen -W 'ascii unicode raw html csv tsv json markdown vertical' \
        -- "$cur")
      return
      ;;
    -h | --host)
      if declare -F _known_hosts_real >/dev/null; then
        _known_hosts_real -- "$cur"
      else
        mapfile -t COMPREPLY < <(compgen -A hostname -- "$cur")
      fi
      return
      ;;
    -e | --execute | -P | --port | -t | --tries | --timeout | --null)
      return  # a query, a port, a number, a text: nothing to offer
      ;;
  esac
  $split && return

  local long='--config --execute --host --port --ping --tries --unicode --nounicode
    --raw-output --output --file --passfile --ignore-err --version --help
    --format --null --no-header --quiet --timing --timeout --interactive'
  local short='-e -f -h -P -p -t -a -o -u -n -r -c -i -v -?'
  if [[ $cur == --* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$long" -- "$cur")
  elif [[ -z $cur || $cur == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$short $long" -- "$cur")
  fi
}
complete -F _kest_client kest_client
