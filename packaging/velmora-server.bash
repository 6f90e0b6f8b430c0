# Completions of velmora-server for bash.
_velmora_server() {
    local current="${COMP_WORDS[COMP_CWORD]}" before="${COMP_WORDS[COMP_CWORD - 1]}"
    case "$before" in
    --config | --import-state) mapfile -t COMPREPLY < <(compgen -f -- "$current") ;;
    --listen) COMPREPLY=() ;;
    --log-level) mapfile -t COMPREPLY < <(compgen -W "debug info notice warn error crit alert" -- "$current") ;;
    --log-format) mapfile -t COMPREPLY < <(compgen -W "text json" -- "$current") ;;
    *)
        mapfile -t COMPREPLY < <(compgen -W \
            "--config --listen --check --print-config --hash-token --import-state --log-level --log-format --version --help" -- "$current")
        ;;
    esac
}
complete -o filenames -F _velmora_server velmora-server
