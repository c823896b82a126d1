#compdef vornet-vi
# Completion of vornet-vi in zsh: what its --help lists.
local help command=''
local -a commands options
help=$($words[1] --help 2>/dev/null) || return 1
commands=(${(f)"$(sed -n '/^Subcommands:/,/^$/s/^  \([a-z]\{1,\}\) .*/\1/p' <<<$help)"})
command=${${words[2,CURRENT-1]:*commands}[1]}
[[ -z $command ]] || help+=$'\n'$($words[1] $command --help 2>/dev/null)
if [[ $words[CURRENT-1] == --color ]]; then
  compadd auto always never
elif [[ $words[CURRENT] == -* ]]; then
  options=(${(f)"$(sed -n 's/^  \(-h,\)\{0,1\}\(--[a-z-]\{1,\}\).*/\2/p' <<<$help)"})
  compadd -- $options
elif [[ $command == help || (-z $command && $words[CURRENT-1] != --timeout) ]]; then
  compadd -- $commands
else
  _files
fi
