# fish completion for plaxd-standin(1)

# The words after "--": a command line of its own.
function __plaxd_standin_script
    set -l words (commandline -opc) (commandline -ct)
    set -l dashes (contains -i -- -- $words)
    and printf '%s\n' $words[(math $dashes + 1)..]
end

set -l commands serve relay rehearse decode
set -l daemons '__fish_seen_subcommand_from serve relay'

complete -c plaxd-standin -f
complete -c plaxd-standin -n __fish_use_subcommand -a serve -d 'Answer requests until SIGTERM or SIGINT'
complete -c plaxd-standin -n __fish_use_subcommand -a relay -d 'Pass requests on to a daemon until SIGTERM or SIGINT'
complete -c plaxd-standin -n __fish_use_subcommand -a rehearse -d 'Run a script and answer its requests'
complete -c plaxd-standin -n __fish_use_subcommand -a decode \
    -d 'Show what the bytes of a request mean; FILE -: standard input'
complete -c plaxd-standin -s h -l help -d 'Show this help text and exit'
complete -c plaxd-standin -n __fish_use_subcommand -l version -d 'Show the version and exit'
complete -c plaxd-standin -n $daemons -l socket -rF -d 'Listen on this socket'
complete -c plaxd-standin -n $daemons -l socket-mode -x -d 'Permissions of the socket in octal; default: 600'
complete -c plaxd-standin -n $daemons -l log -rF -d 'Append the log to FILE; default: -, standard output'
complete -c plaxd-standin -n $daemons -l ready-fd -x -d 'Write a newline to descriptor N when ready'
complete -c plaxd-standin -n "__fish_seen_subcommand_from $commands" -l format -x -a 'text json commands' \
    -d 'text (the default), json or commands'
complete -c plaxd-standin -n "__fish_seen_subcommand_from $commands" -l strict -a 'violations warnings' \
    -d 'Exit with status 1 after violations (and warnings)'
complete -c plaxd-standin -n '__fish_seen_subcommand_from serve relay rehearse' -l answers -rF \
    -d 'Take answers and faults from this JSON file'
complete -c plaxd-standin -n '__fish_seen_subcommand_from serve rehearse' -l expect -rF \
    -d 'Exit with status 1 unless these requests came'
complete -c plaxd-standin -n '__fish_seen_subcommand_from serve relay rehearse' -l capture -rF \
    -d 'Write requests and replies to FILE for Wireshark'
complete -c plaxd-standin -n '__fish_seen_subcommand_from relay' -l to -rF \
    -d 'Socket of the daemon; default: /var/run/plaxd.uds'
complete -c plaxd-standin -n '__fish_seen_subcommand_from relay' -l record -rF \
    -d 'Write what was answered to FILE, an answers file'
complete -c plaxd-standin -n '__fish_seen_subcommand_from rehearse' -l log -rF \
    -d 'Append the log to FILE; default: no log'
complete -c plaxd-standin -n '__fish_seen_subcommand_from rehearse' -l socket-option \
    -d 'Give plax-tool -s where namespaces are not allowed'
complete -c plaxd-standin -n '__fish_seen_subcommand_from rehearse; and contains -- -- (commandline -opc)' \
    -a '(__fish_complete_subcommand --commandline (__plaxd_standin_script))'
complete -c plaxd-standin -n '__fish_seen_subcommand_from decode' -F
