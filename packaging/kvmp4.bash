# Completion of kvmp4's subcommands, options and their values, for bash.
_kvmp4()
{
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} options
    COMPREPLY=()
    if [ "$COMP_CWORD" -eq 1 ]; then
        COMPREPLY=($(compgen -W "record repair inspect verify --help --version" -- "$word"))
        return
    fi
    case "$before" in
    --video | --audio) COMPREPLY=($(compgen -W "auto none" -- "$word")); return ;;
    --captions) COMPREPLY=($(compgen -W "auto none video" -- "$word")); return ;;
    --caption-format) COMPREPLY=($(compgen -W "608 708" -- "$word")); return ;;
    --timecode) COMPREPLY=($(compgen -W "auto none" -- "$word")); return ;;
    --safe-strategy) COMPREPLY=($(compgen -W "fixed linear stepped" -- "$word")); return ;;
    --profile) COMPREPLY=($(compgen -W "low-loss" -- "$word")); return ;;
    --format | -f | --fps | --metadata | --duration | --safe-min | --safe-max | \
        --safe-threshold | --info-flush) return ;;
    esac
    case "${COMP_WORDS[1]}" in
    record) options="--help --input --output --format --video --audio --captions --caption-format
        --timecode --fps --metadata --duration --large-file --no-large-file --fast-header
        --version1 --no-version1 --safe --safe-strategy --safe-min --safe-max --safe-threshold --info --info-flush --profile
        --realtime --overwrite --verbose" ;;
    repair) options="--help --dry-run --backup --force --delete-log --json --verbose" ;;
    inspect) options="--help --all --packets --map --json --overwrite" ;;
    verify) options="--help --tables-only --json --verbose" ;;
    *) return ;;
    esac
    # A name with blanks is one answer; bash quotes it.
    local IFS=$'\n'
    case "$word" in
    -*) COMPREPLY=($(IFS=$' \n'; compgen -W "$options" -- "$word")) ;;
    *) COMPREPLY=($(compgen -f -- "$word")) ;;
    esac
}
complete -o filenames -F _kvmp4 kvmp4
