# Completion of corvanectl for bash.
_corvanectl() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
    local own=
    case $before in
        --log-file | --log-config | --command-log | report)
            mapfile -t COMPREPLY < <(compgen -f -- "$word")
            return
            ;;
        --log-level) own='trace debug info error off' ;;
        airplane) own='on off' ;;
        off) own='forced' ;;
        devices) own='all paired connected' ;;
    esac
    case $before in
        --log-level | airplane) ;;
        *)
            own+=' on off status airplane scan devices find pair wait-pair trust connect disconnect forget cancel watch-log doctor report quit help'
            ;;
    esac
    [[ $word == -* ]] && own='-h --help --version --json -k --keep-going --teardown --log-level --log-file --log-config --command-log --anonymous'
    mapfile -t COMPREPLY < <(compgen -W "$own" -- "$word")
}
complete -F _corvanectl corvanectl
