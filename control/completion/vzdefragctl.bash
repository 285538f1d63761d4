# Completion of vzdefragctl for bash.

_vzdefragctl()
{
    local current=${COMP_WORDS[COMP_CWORD]} previous= word command= index
    local common='--tool --rollback --help --help-all'
    local run='--plain --json-events --time-limit --threshold --verify --report --yes --force
        --no-rollback --lowpri'
    COMPREPLY=()
    if ((COMP_CWORD > 0)); then
        previous=${COMP_WORDS[COMP_CWORD - 1]}
    fi
    # "--sort=name" comes as three words.
    if [[ $current == = ]]; then
        current=
    elif [[ $previous == = ]] && ((COMP_CWORD > 1)); then
        previous=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    for ((index = 1; index < COMP_CWORD; index++)); do
        word=${COMP_WORDS[index]}
        case $word in
            info | map | defrag | compact | report | recover) command=$word; break ;;
        esac
    done

    case $previous in
        --sort) _vzdefragctl_words 'extents blocks name' "$current"; return ;;
        --color) _vzdefragctl_words 'auto always never' "$current"; return ;;
        --profile) _vzdefragctl_words 'boot app boot,app' "$current"; return ;;
        --time-limit) _vzdefragctl_words '90s 5m 30m 1h 1h30m 2h' "$current"; return ;;
        --top | --width | --height | --threshold) return ;;
        --svg | --report | -o | --output | --baseline | --tool | --rollback)
            _vzdefragctl_files "$current"
            return ;;
    esac
    if [[ $current != -* ]]; then
        if [[ -z $command ]]; then
            _vzdefragctl_words 'info map defrag compact report recover' "$current"
        else
            _vzdefragctl_files "$current"
        fi
        return
    fi
    case $command in
        info) word="--top --sort --json --csv $common" ;;
        map) word="--width --height --ascii --color --svg $common" ;;
        defrag) word="--profile $run $common" ;;
        compact) word="$run $common" ;;
        report) word="--output --baseline $common" ;;
        recover) word=$common ;;
        *) word='--help --help-all --version' ;;
    esac
    _vzdefragctl_words "$word" "$current"
}

_vzdefragctl_words()
{
    local word
    while read -r word; do
        COMPREPLY+=("$word")
    done < <(compgen -W "$1" -- "$2")
}

_vzdefragctl_files()
{
    local file
    compopt -o filenames 2>/dev/null
    while read -r file; do
        COMPREPLY+=("$file")
    done < <(compgen -f -- "$1")
}

complete -F _vzdefragctl vzdefragctl
