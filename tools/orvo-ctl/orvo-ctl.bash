# bash completion for orvo-ctl
_orvo_ctl()
{
    local cur prev words cword
    _init_completion || return
    local commands="list info config trace snoop send journal eeprom statusw"
    if [[ $cword -eq 1 ]]; then
        COMPREPLY=($(compgen -W "$commands --help --version --json" -- "$cur"))
        return
    fi
    case $prev in
        --scm|--timeout|--tail|--since|--type) return ;;
        --pcap) _filedir; return ;;
    esac
    case ${words[1]} in
        journal)
            if [[ $cur == -* ]]; then
                COMPREPLY=($(compgen -W "--tail --since --verify --follow --json --help" -- "$cur"))
            else
                _filedir
            fi ;;
        eeprom)
            if [[ $cur == -* ]]; then
                COMPREPLY=($(compgen -W "--json --help" -- "$cur"))
            else
                _filedir
            fi ;;
        statusw)
            if [[ $cword -eq 2 ]]; then
                COMPREPLY=($(compgen -W "get set clear --json --help" -- "$cur"))
            fi ;;
        list)
            COMPREPLY=($(compgen -W "--scm --timeout --json --help" -- "$cur")) ;;
        info|send|config|trace|snoop)
            local extra=""
            case ${words[1]} in
                send) extra="--wait" ;;
                trace) extra="--follow" ;;
                snoop) extra="--type --pcap" ;;
            esac
            if [[ $cur == -* ]]; then
                COMPREPLY=($(compgen -W "--scm --timeout --json --help $extra" -- "$cur"))
            elif [[ $cword -eq 2 ]]; then
                # The names the SCM knows, when it answers quickly.
                local names
                names=$(orvo-ctl list --timeout 1000 2>/dev/null | awk 'NR > 1 { print $1 }')
                COMPREPLY=($(compgen -W "$names" -- "$cur"))
            elif [[ ${words[1]} == config && $cword -eq 3 ]]; then
                COMPREPLY=($(compgen -W "set" -- "$cur"))
            elif [[ ${words[1]} == trace && $cur == *=* ]]; then
                COMPREPLY=($(compgen -P "${cur%%=*}=" -W "NONE FATAL ERROR WARNING INFO DEBUG SYSLOG ALL" -- "${cur#*=}"))
            fi ;;
    esac
}
complete -F _orvo_ctl orvo-ctl
