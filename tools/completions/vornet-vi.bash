# Completion of vornet-vi in bash: what its --help lists.
_vornet_vi() {
  local program=$1 current=$2 previous=$3 help commands command='' word words
  help=$("$program" --help 2>/dev/null) || return 0
  commands=$(sed -n '/^Subcommands:/,/^$/s/^  \([a-z]\{1,\}\) .*/\1/p' <<<"$help")
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    [[ $'\n'$commands$'\n' != *$'\n'"$word"$'\n'* ]] || { command=$word; break; }
  done
  [[ -z $command ]] || help+=$'\n'$("$program" "$command" --help 2>/dev/null)
  if [[ $previous == --color ]]; then
    words='auto always never'
  elif [[ $current == -* ]]; then
    words=$(sed -n 's/^  \(-h,\)\{0,1\}\(--[a-z-]\{1,\}\).*/\2/p' <<<"$help")
  elif [[ $command == help || (-z $command && $previous != --timeout) ]]; then
    words=$commands
  else
    compopt -o default 2>/dev/null # the names of files
    return 0
  fi
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}
complete -F _vornet_vi vornet-vi
