# Completion of vzdefragctl for fish.

set -l commands info map defrag compact report recover
set -l none "not __fish_seen_subcommand_from $commands"
set -l any "__fish_seen_subcommand_from $commands"
set -l run "__fish_seen_subcommand_from defrag compact"

complete -c vzdefragctl -n $none -f
complete -c vzdefragctl -n $none -a info -d 'Tell use, files, fragmentation and free space'
complete -c vzdefragctl -n $none -a map -d 'Draw what lies where'
complete -c vzdefragctl -n $none -a defrag -d 'Bring every file into one piece'
complete -c vzdefragctl -n $none -a compact -d 'Bring the free space into one run'
complete -c vzdefragctl -n $none -a report -d 'Write a page about the volume'
complete -c vzdefragctl -n $none -a recover -d 'Roll an interrupted run back'

complete -c vzdefragctl -s h -l help -d 'Print help'
complete -c vzdefragctl -l help-all -d 'Print help on all commands'
complete -c vzdefragctl -n $none -l version -d 'Print the version'
complete -c vzdefragctl -n $any -l tool -r -F -d 'The vzdefrag to use'
complete -c vzdefragctl -n $any -l rollback -r -F -d 'The rollback file to use'

set -l in "__fish_seen_subcommand_from info"
complete -c vzdefragctl -n $in -l top -x -d 'How many of the worst files'
complete -c vzdefragctl -n $in -l sort -x -a 'extents blocks name' -d 'What makes a file worse'
complete -c vzdefragctl -n $in -l json -d 'Print one JSON document'
complete -c vzdefragctl -n $in -l csv -d 'Print all files'

set in "__fish_seen_subcommand_from map"
complete -c vzdefragctl -n $in -l width -x -d 'Columns'
complete -c vzdefragctl -n $in -l height -x -d 'Rows'
complete -c vzdefragctl -n $in -l ascii -d 'Draw with ASCII characters'
complete -c vzdefragctl -n $in -l color -x -a 'auto always never' -d 'When to use colours'
complete -c vzdefragctl -n $in -l svg -r -F -d 'Write the picture to a file'

set in "__fish_seen_subcommand_from defrag"
complete -c vzdefragctl -n $in -l profile -x -a 'boot app boot,app' -d 'What comes first'

complete -c vzdefragctl -n $run -l plain -d 'Print lines in the place of the live screen'
complete -c vzdefragctl -n $run -l json-events -d 'Print one JSON object a line'
complete -c vzdefragctl -n $run -l time-limit -x -a '90s 5m 30m 1h 1h30m 2h' \
    -d 'Stop safely when the time is over'
complete -c vzdefragctl -n $run -l threshold -x \
    -d 'Do nothing when fewer blocks are in files in pieces'
complete -c vzdefragctl -n $run -l verify -d 'Compare the hashes of all files before and after'
complete -c vzdefragctl -n $run -l report -r -F -d 'Write a report of before and after'
complete -c vzdefragctl -n $run -s y -l yes -d 'Do not ask'
complete -c vzdefragctl -n $run -l force -d 'Run though there is too little free space'
complete -c vzdefragctl -n $run -l no-rollback -d 'Keep no rollback file'
complete -c vzdefragctl -n $run -l lowpri -d 'Run in the idle class of disk I/O'

set in "__fish_seen_subcommand_from report"
complete -c vzdefragctl -n $in -s o -l output -r -F -d 'The page to write'
complete -c vzdefragctl -n $in -l baseline -r -F -d 'Compare with a saved info --json'
