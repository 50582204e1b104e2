# bash completion for plaxd-standin(1)                    -*- shell-script -*-

_plaxd_standin_words()
{
    mapfile -t COMPREPLY < <(compgen -W "$1" -- "$cur")
}

_plaxd_standin_options()
{
    local daemon='--socket --socket-mode --log --format --strict --ready-fd --capture --help'
    case $1 in
        serve) _plaxd_standin_words "$daemon --answers --expect" ;;
        relay) _plaxd_standin_words "$daemon --to --answers --record" ;;
        rehearse) _plaxd_standin_words '--answers --expect --log --format --strict --capture --socket-option --help' ;;
        decode) _plaxd_standin_words '--format --strict --help' ;;
    esac
}

# bash splits a word at its colons and replaces only the last part.
_plaxd_standin_files()
{
    _filedir
    __ltrim_colon_completions "$cur"
}

_plaxd_standin()
{
    # shellcheck disable=SC2034 # set by _init_completion
    local cur prev words cword split
    _init_completion -s -n : || return

    local i
    for ((i = 2; i < cword; i++)); do
        if [[ ${words[1]}:${words[i]} == rehearse:-- ]]; then
            _command_offset $((i + 1))
            return
        fi
    done

    case $prev:$split in
        --socket:* | --to:* | --log:* | --answers:* | --expect:* | --capture:* | --record:*) _plaxd_standin_files ;;
        --format:*) _plaxd_standin_words 'text json commands' ;;
        --strict:true) _plaxd_standin_words 'violations warnings' ;;
        --socket-mode:* | --ready-fd:*) ;;
        *)
            if ((cword == 1)); then
                _plaxd_standin_words "$([[ $cur == -* ]] && echo --help --version || echo serve relay rehearse decode)"
            elif [[ $cur == -* ]]; then
                _plaxd_standin_options "${words[1]}"
            elif [[ ${words[1]} == decode ]]; then
                _plaxd_standin_files
            fi
            ;;
    esac
} &&
    complete -F _plaxd_standin plaxd-standin
