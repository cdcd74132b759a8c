# bash completion for the collector's side tools. One file serves them all: the name under which it
# is loaded registers every tool.

_siem_collector_tools() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local tool=${COMP_WORDS[0]##*/}
    COMPREPLY=()
    case $previous in
    -c | --conf-file | --prom | --save | --catalogue | --cert | --key | --client-ca)
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
        ;;
    --logrotate)
        compopt -o dirnames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -d -- "$current")
        return
        ;;
    --explain)
        local ids
        ids=$(siem_collector_check --explain all 2>/dev/null | sed -n 's/^\(T[0-9][0-9]\) .*/\1/p')
        mapfile -t COMPREPLY < <(compgen -W "$ids all" -- "$current")
        return
        ;;
    esac
    if [[ $current == -* ]]; then
        # The tools' own help is the list, so that this file cannot fall behind it.
        local options
        options=$("$tool" --help 2>/dev/null | grep -oE -- '(^|[ ,|[])-{1,2}[a-z][a-z0-9-]*' |
            grep -oE -- '-{1,2}[a-z][a-z0-9-]*' | sort -u)
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
        return
    fi
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
}

complete -F _siem_collector_tools siem_collector_check siem_collector_status ruv_receiver ruv_send
