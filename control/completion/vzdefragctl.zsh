#compdef vzdefragctl
# Completion of vzdefragctl for zsh.

local -a common run commands
common=(
    '--tool=[the vzdefrag to use]:program:_files'
    '--rollback=[the rollback file to use]:rollback file:_files'
    '(- *)'{-h,--help}'[print help]'
    '(- *)--help-all[print help on all commands]'
)
run=(
    '(--json-events)--plain[print lines in the place of the live screen]'
    '(--plain)--json-events[print one JSON object a line]'
    '--time-limit=[stop safely when the time is over]:duration:(90s 5m 30m 1h 1h30m 2h)'
    '--threshold=[do nothing when fewer blocks are in files in pieces]:percent:'
    '--verify[compare the hashes of all files before and after]'
    '--report=[write a report of before and after]:HTML file:_files'
    '(-y --yes)'{-y,--yes}'[do not ask]'
    '--force[run though there is too little free space]'
    '--no-rollback[keep no rollback file]'
    '--lowpri[run in the idle class of disk I/O]'
)
commands=(
    'info:tell use, files, fragmentation and free space'
    'map:draw what lies where'
    'defrag:bring every file into one piece'
    'compact:bring the free space into one run'
    'report:write a page about the volume'
    'recover:roll an interrupted run back'
)

local context state state_descr line
typeset -A opt_args
_arguments -C '(- *)'{-h,--help}'[print help]' '(- *)--help-all[print help on all commands]' \
    '(- *)--version[print the version]' \
    '1:command:->command' '*::argument:->arguments'

case $state in
    command) _describe -t commands 'command' commands ;;
    arguments)
        case $line[1] in
            info)
                _arguments '--top=[how many of the worst files]:count:' \
                    '--sort=[what makes a file worse]:order:(extents blocks name)' \
                    '(--csv)--json[print one JSON document]' \
                    '(--json)--csv[print all files]' $common '1:image:_files' ;;
            map)
                _arguments '--width=[columns]:columns:' '--height=[rows]:rows:' \
                    '--ascii[draw with ASCII characters]' \
                    '--color=[when to use colours]:when:(auto always never)' \
                    '--svg=[write the picture to a file]:SVG file:_files' \
                    $common '1:image:_files' ;;
            defrag)
                _arguments '--profile=[what comes first]:profiles:(boot app boot,app)' \
                    $run $common '1:image:_files' ;;
            compact) _arguments $run $common '1:image:_files' ;;
            report)
                _arguments '(-o --output)'{-o+,--output=}'[the page to write]:HTML file:_files' \
                    '--baseline=[compare with a saved info --json]:JSON file:_files' \
                    $common '1:image:_files' ;;
            recover) _arguments $common '1:image:_files' ;;
        esac ;;
esac
