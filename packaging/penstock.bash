# bash completion for penstock(1). Subcommands and options are asked of the program, so that they
# are never old.

# The names in a section of a command's help, one a line: TITLE COMMAND...
_penstock_listed() {
  local title=$1
  shift
  "$@" --help 2>/dev/null | awk -v title="$title:" '
    $0 == title { inside = 1; next }
    !NF { inside = 0 }
    inside && /^  [^ ]/ { gsub(",", "\n", $1); print $1 }'
}

# Words that begin with the second argument.
_penstock_offer() {
  mapfile -t COMPREPLY < <(compgen -W "$1" -- "$2")
}

_penstock() {
  local program=${COMP_WORDS[0]} current=${COMP_WORDS[COMP_CWORD]}
  local previous=${COMP_WORDS[COMP_CWORD - 1]} behind_equals='' kept=''
  COMPREPLY=()
  if [[ $COMP_CWORD -eq 1 ]]; then
    _penstock_offer "$(_penstock_listed Subcommands "$program")
      $(_penstock_listed Options "$program")" "$current"
    return
  fi
  # NAME=VALUE is three words, or one where COMP_WORDBREAKS has no "=".
  if [[ $current == '=' ]]; then
    current='' behind_equals=1
  elif [[ $previous == '=' ]]; then
    previous=${COMP_WORDS[COMP_CWORD - 2]} behind_equals=1
  elif [[ $current == *=* ]]; then
    previous=${current%%=*} kept=${current%%=*}= current=${current#*=} behind_equals=1
  fi
  case $previous in
    --compress) _penstock_offer 'none lz4 zstd auto' "$current" ;;
    --log-level) _penstock_offer 'trace debug info warning error' "$current" ;;
    --log-format) _penstock_offer 'text json' "$current" ;;
    --wait) _penstock_offer 'durable applied flushed' "$current" ;;
    --spool | --state | --tls-certs | --volumes) mapfile -t COMPREPLY < <(compgen -d -- "$current") ;;
    --group | --identity | --interval | --jobs | --journal-quota | --limit-rate | --listen | \
      --max-dataset | --max-lag | --memory | --metrics | --nbd | --of | --retry-for | \
      --spool-max | --tls-name | --to) ;;
    *)
      if [[ $current == -* && -z $behind_equals ]]; then
        _penstock_offer "$(_penstock_listed Options "$program" "${COMP_WORDS[1]}")" "$current"
      else
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
      fi
      ;;
  esac
  [[ -z $kept ]] || COMPREPLY=("${COMPREPLY[@]/#/$kept}")
}
complete -o filenames -F _penstock penstock
