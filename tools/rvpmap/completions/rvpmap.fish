# fish completion for rvpmap

set -l commands claim info ls stat extents extract catalog map owner scan
set -l none "not __fish_seen_subcommand_from $commands"

complete -c rvpmap -n $none -f -a claim -d 'Ask whether a file system is recognised'
complete -c rvpmap -n $none -f -a info -d 'Show name, UUID, kind and size'
complete -c rvpmap -n $none -f -a ls -d 'List a directory'
complete -c rvpmap -n $none -f -a stat -d 'Show the attributes of one file'
complete -c rvpmap -n $none -f -a extents -d 'Show which byte runs hold a file'
complete -c rvpmap -n $none -f -a extract -d 'Copy a file or a tree out of the volume'
complete -c rvpmap -n $none -f -a catalog -d 'List every file with all its attributes'
complete -c rvpmap -n $none -f -a map -d 'Draw where the files lie'
complete -c rvpmap -n $none -f -a owner -d 'Tell which files own byte ranges'

complete -c rvpmap -n $none -f -a scan -d 'Show what disks hold'

complete -c rvpmap -s h -l help -d 'Print help'
complete -c rvpmap -s V -l version -d 'Print the version'
complete -c rvpmap -l log-level -x -a 'error warning info debug' -d 'Show log lines up to this level'
complete -c rvpmap -l trace -d 'Show all log lines and calls'
complete -c rvpmap -l color -x -a 'auto always never' -d 'When to use colours'
complete -c rvpmap -s d -l disk -r -d 'Disk on which the volume lies'
complete -c rvpmap -l root -r -d 'Folder that holds lib/libdorado.so'

complete -c rvpmap -n "__fish_seen_subcommand_from $commands" -l json -d 'Print JSON'
complete -c rvpmap -n '__fish_seen_subcommand_from extents extract' -l physical -d 'Down to the disks'
complete -c rvpmap -n '__fish_seen_subcommand_from ls' -s l -l long -d 'Show attributes'
complete -c rvpmap -n '__fish_seen_subcommand_from ls' -s R -l recursive -d 'List everything below'
complete -c rvpmap -n '__fish_seen_subcommand_from ls' -s U -l unsorted -d 'Keep the directory\'s order'
complete -c rvpmap -n '__fish_seen_subcommand_from extract' -s o -l output -r -d 'Where to write'
complete -c rvpmap -n '__fish_seen_subcommand_from extract' -s r -l recursive -d 'Restore a tree'
complete -c rvpmap -n '__fish_seen_subcommand_from extract' -l owner -d 'Restore owners'
complete -c rvpmap -n '__fish_seen_subcommand_from catalog' -l format -x -a 'table csv ndjson sqlite' -d 'Output format'
complete -c rvpmap -n '__fish_seen_subcommand_from catalog' -l extents -d 'Add the extents'
complete -c rvpmap -n '__fish_seen_subcommand_from catalog' -s o -l output -r -d 'Database to write'
complete -c rvpmap -n '__fish_seen_subcommand_from map' -s o -l output -r -d 'Picture to write'
complete -c rvpmap -n '__fish_seen_subcommand_from owner' -l ddrescue -r -d 'Map file of bad areas'
