# Completion of fsparser for bash.

# _fsparser_options VERB: the long options of a verb, those with a value with a = behind; and the short ones.
_fsparser_options() {
    local common='-h --help --json --align= --partition= --offset= --max-reads= --max-time= -q --quiet -v --verbose'
    local unit='--unit=' refused='--all-used-if-refused' output='-o --output=' paths='--from= --cache='
    case $1 in
        detect) echo "$common" ;;
        info | digest) echo "$common $unit" ;;
        map) echo "$common --color= --width= --height= --ascii --png= --svg= $unit" ;;
        bitmap) echo "$common $output $refused $unit" ;;
        ranges) echo "$common --format= $output $unit" ;;
        copy) echo "$common --force --to-device --skip-unreadable --rescue-map= --progress= $refused $unit" ;;
        verify) echo "$common $refused $unit" ;;
        stat | extents) echo "$common $paths" ;;
        acl) echo "$common $paths --sddl" ;;
        '') echo '-h --help --version' ;;
    esac
}

# _fsparser_takes_value VERB OPTION
_fsparser_takes_value() {
    [[ $2 == -o || " $(_fsparser_options "$1") " == *" $2= "* ]]
}

# _fsparser_words WORD LIST
_fsparser_words() {
    mapfile -t COMPREPLY < <(compgen -W "$2" -- "$1")
}

# _fsparser_files WORD
_fsparser_files() {
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$1")
}

# _fsparser_value OPTION WORD: numbers are left to the user.
_fsparser_value() {
    case $1 in
        --format) _fsparser_words "$2" 'text json csv bmap ddrescue extentlist fallocate' ;;
        --color) _fsparser_words "$2" 'auto always never' ;;
        --progress) _fsparser_words "$2" 'auto never json' ;;
        -o | --output | --png | --svg | --rescue-map | --from) _fsparser_files "$2" ;;
    esac
}

# _fsparser_operand VERB NUMBER WORD: a file; paths on a volume are left to the user.
_fsparser_operand() {
    case $1:$2 in
        *:1 | copy:2 | verify:2) _fsparser_files "$3" ;;
    esac
}

_fsparser() {
    local word=${COMP_WORDS[COMP_CWORD]}
    local verb='' option='' operands=0 i
    COMPREPLY=()

    # What stands before the word. The = of --option=value is a word of its own.
    for ((i = 1; i < COMP_CWORD; ++i)); do
        if [[ ${COMP_WORDS[i]} == '=' ]]; then
            continue
        elif [[ -n $option ]]; then
            option=''
        elif [[ ${COMP_WORDS[i]} == -?* ]]; then
            _fsparser_takes_value "$verb" "${COMP_WORDS[i]}" && option=${COMP_WORDS[i]}
        elif [[ -z $verb ]]; then
            verb=${COMP_WORDS[i]}
        else
            ((++operands))
        fi
    done

    if [[ -n $option ]]; then
        _fsparser_value "$option" "${word#=}"
    elif [[ $word == -* ]]; then
        _fsparser_words "$word" "$(_fsparser_options "$verb")"
        [[ ${#COMPREPLY[@]} -eq 1 && ${COMPREPLY[0]} == *= ]] && compopt -o nospace 2>/dev/null
    elif [[ -z $verb ]]; then
        _fsparser_words "$word" 'detect info map bitmap ranges copy verify digest stat extents acl'
    else
        _fsparser_operand "$verb" $((operands + 1)) "$word"
    fi
    return 0
}

complete -F _fsparser fsparser
