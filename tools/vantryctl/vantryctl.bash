# bash completion for vantryctl
_vantryctl() {
    local cur prev words cword
    _init_completion -n = 2>/dev/null || {
        COMPREPLY=()
        words=("${COMP_WORDS[@]}")
        cword=$COMP_CWORD
        cur=${COMP_WORDS[COMP_CWORD]}
        prev=${COMP_WORDS[COMP_CWORD - 1]}
    }
    local command='' deeper='' options='' i
    for ((i = 1; i < cword; i++)); do
        case "${words[i]}" in
        query | check | backup | restore | screen | shm)
            [ -n "$command" ] || command=${words[i]}
            ;;
        list | show | purge)
            [ "$command" != shm ] || deeper=${deeper:-${words[i]}}
            ;;
        esac
    done

    case "$prev" in
    --format)
        mapfile -t COMPREPLY < <(compgen -W 'table csv json lines' -- "$cur")
        return
        ;;
    --stage)
        mapfile -t COMPREPLY < <(compgen -W 'first second' -- "$cur")
        return
        ;;
    --svg)
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        return
        ;;
    --uri | --columns | --where | --arg | --order | --limit | --key | --older-than | --accelerator | --at)
        return
        ;;
    esac

    case "$command $deeper" in
    ' ') options='query check backup restore shm screen --help --version' ;;
    'query ') options='--uri --columns --where --arg --order --limit --format --types --help' ;;
    'check ') options='--quick --help' ;;
    'backup ') options='--help' ;;
    'restore ') options='--stage --force --dry-run --help' ;;
    'shm ') options='list show purge --help' ;;
    'shm list') options='--key --format --help' ;;
    'shm show') options='--format --help' ;;
    'shm purge') options='--key --older-than --yes --help' ;;
    'screen ') options='--svg --accelerator --at --help' ;;
    esac

    if [ "$command $deeper" = ' ' ] || [ "$command $deeper" = 'shm ' ] || [[ $cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
    elif [ "$command $deeper" = 'shm show' ]; then
        local names
        names=$(cd /dev/shm 2>/dev/null && compgen -G '.vantry_*' | sed 's,^,/,')
        mapfile -t COMPREPLY < <(compgen -W "$names" -- "$cur")
    elif [ "$command" = query ] || [ "$command" = check ] || [ "$command" = backup ] ||
        [ "$command" = restore ] || [ "$command" = screen ]; then
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
    fi
} &&
    complete -F _vantryctl vantryctl
