# Completion of corvanectl for bash, made by: corvanectl --generate bash
_corvanectl() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
    local own=
    case $before in
        --log-file | --log-config)
            mapfile -t COMPREPLY < <(compgen -f -- "$word")
            return
            ;;
        --log-level) own='trace debug info error off' ;;
        --generate) own='man bash zsh' ;;
        off) own='forced' ;;
        airplane) own='on off' ;;
        devices) own='all paired connected' ;;
    esac
    case $before in
        --log-level | --generate | airplane) ;;
        *) own+=' on off status airplane scan devices find pair wait-pair trust connect disconnect forget cancel watch-log doctor quit help' ;;
    esac
    [[ $word == -* ]] && own='-h --help --version --json -k --keep-going --teardown --log-level --log-file --log-config --generate'
    mapfile -t COMPREPLY < <(compgen -W "$own" -- "$word")
}
complete -F _corvanectl corvanectl
