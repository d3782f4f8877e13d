# fish completion for arborctl: commands and options are what the program says of itself, values what the device does.

# The words of one section of the help, with what they mean behind a tab.
function __arborctl_section
    set -l section $argv[1]
    arborctl $argv[2..] --help 2>/dev/null | awk -v section="$section:" '
        $0 == section { on = 1; next }
        /^$/ { on = 0 }
        on && /^  [^ ]/ { word = $1; sub(/^-.,/, "", word); text = substr($0, 30, 1) == " " ? substr($0, 31) : ""; print word "\t" text }'
end

# The command that was given already, if any.
function __arborctl_command
    set -l commands (__arborctl_section Subcommands | string replace -r '\t.*' '')
    for word in (commandline -opc)[2..]
        contains -- $word $commands; and echo $word; and return 0
    end
    return 1
end

# The first column of what the device lists.
function __arborctl_column
    arborctl $argv --timeout 1 2>/dev/null | awk 'NF == 0 { exit } NR > 1 { print $1 }'
end

function __arborctl_values
    switch (__arborctl_command)
        case install transfer
            __arborctl_column updates
        case show
            __arborctl_column history
        case cancel
            __arborctl_column history --state open
        case send
            arborctl send --list --timeout 1 2>/dev/null
        case trust
            __arborctl_section Subcommands trust
            __fish_complete_path (commandline -ct)
        case doctor scan upload verify keygen
            __fish_complete_path (commandline -ct)
    end
end

function __arborctl_options
    __arborctl_section Options
    set -l command (__arborctl_command)
    and __arborctl_section Options $command
end

complete -c arborctl -f
complete -c arborctl -n 'not __arborctl_command > /dev/null' -a '(__arborctl_section Subcommands)'
complete -c arborctl -n '__arborctl_command > /dev/null' -a '(__arborctl_values)'
complete -c arborctl -n 'string match -q -- "-*" (commandline -ct)' -a '(__arborctl_options)'
