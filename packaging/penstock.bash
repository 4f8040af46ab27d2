# bash completion for penstock(1). The options are asked of the program, so that they are never old.
_penstock() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local commands="replicate target sync verify status inspect keygen"
  COMPREPLY=()
  if [[ $COMP_CWORD -eq 1 ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$commands --help --version" -- "$current")
    return
  fi
  case $previous in
    --compress) mapfile -t COMPREPLY < <(compgen -W "none lz4 zstd auto" -- "$current"); return ;;
    --log-level)
      mapfile -t COMPREPLY < <(compgen -W "trace debug info warning error" -- "$current")
      return
      ;;
    --log-format) mapfile -t COMPREPLY < <(compgen -W "text json" -- "$current"); return ;;
    --to | --of | --listen | --group | --identity | --limit-rate | --jobs | --retry-for) return ;;
  esac
  if [[ $current == -* ]]; then
    local options
    options=$("${COMP_WORDS[0]}" "${COMP_WORDS[1]}" --help 2>/dev/null |
      grep -oE '(^|[ ,])--?[a-z][a-z-]*' | tr -d ' ,' | sort -u)
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
    return
  fi
  mapfile -t COMPREPLY < <(compgen -f -- "${current#*=}")
  if [[ $current == *=* ]]; then
    COMPREPLY=("${COMPREPLY[@]/#/${current%%=*}=}")
  fi
}
complete -o filenames -F _penstock penstock
