# bash completion for rvpmap

_rvpmap() {
    local cur prev words cword
    _init_completion || return

    local commands='claim info ls stat extents extract catalog map owner scan'
    local options='--disk --help --version --log-level --trace --color --root'
    local command='' word
    for word in "${words[@]:1:cword-1}"; do
        if [[ " $commands " == *" $word "* ]]; then
            command=$word
            break
        fi
    done

    case $prev in
        --log-level) COMPREPLY=($(compgen -W 'error warning info debug' -- "$cur")); return ;;
        --color) COMPREPLY=($(compgen -W 'auto always never' -- "$cur")); return ;;
        --format) COMPREPLY=($(compgen -W 'table csv ndjson sqlite' -- "$cur")); return ;;
        --root) _filedir -d; return ;;
        -o|--output|--ddrescue|-d|--disk) _filedir; return ;;
    esac

    case $command in
        '') options="$commands $options" ;;
        ls) options="--json --long --recursive --unsorted $options" ;;
        extents) options="--json --physical $options" ;;
        extract) options="--json --physical --output --recursive --owner $options" ;;
        catalog) options="--json --format --extents --output $options" ;;
        map) options="--json --output $options" ;;
        owner) options="--json --ddrescue $options" ;;
        *) options="--json $options" ;;
    esac
    if [[ -z $command || $cur == -* ]]; then
        COMPREPLY=($(compgen -W "$options" -- "$cur"))
    else
        _filedir
    fi
}
complete -F _rvpmap rvpmap
