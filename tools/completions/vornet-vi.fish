# Completion of vornet-vi in fish: what its --help lists.
function __vornet_vi_commands
    set -l program (commandline -opc)[1]
    $program --help 2>/dev/null | sed -n '/^Subcommands:/,/^$/s/^  \([a-z]\{1,\}\)  *\(.*\)/\1\t\2/p'
end
function __vornet_vi_command
    for word in (commandline -opc)[2..]
        __vornet_vi_commands | string match -rq "^$word\t"; and echo $word; and return
    end
    return 1
end
function __vornet_vi_options
    set -l program (commandline -opc)[1]
    set -l command (__vornet_vi_command)
    begin
        $program --help
        test -z "$command"; or $program $command --help
    end 2>/dev/null | sed -n 's/^  \(-h,\)\{0,1\}\(--[a-z-]\{1,\}\)\(.*  \(.*\)\)\{0,1\}.*/\2\t\4/p' | sort -u
end
complete -c vornet-vi -n 'not __vornet_vi_command >/dev/null; or __vornet_vi_command | string match -q help' -f -a '(__vornet_vi_commands)'
complete -c vornet-vi -n 'string match -q -- "-*" (commandline -ct)' -f -a '(__vornet_vi_options)'
complete -c vornet-vi -l color -x -a 'auto always never'
