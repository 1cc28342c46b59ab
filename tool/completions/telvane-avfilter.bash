# bash completion for telvane-avfilter                                     -*- shell-script -*-

_telvane_avfilter() {
    local word=$2 previous=$3 command=${COMP_WORDS[1]} options
    COMPREPLY=()
    if ((COMP_CWORD == 1)); then
        mapfile -t COMPREPLY < <(compgen -W "audio mix-audio video mix-video scale probe --help --version" -- "$word")
        return
    fi
    case $previous in
    --to) options="wav flac mp3 ogg m4a mp4 mov mkv webm y4m png jpg raw" ;;
    --length | --at | --from | --stream) return ;;
    --pass) options="none" ;;
    =) # the file of --in NAME=FILE: the shell splits words there
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
        return
        ;;
    *)
        if [[ $word == -* ]]; then
            options="--help --verbose --from --stream"
            [[ $command != probe ]] && options+=" --to --length --pass --force --quiet"
            [[ $command == mix-* ]] && options+=" --in"
            [[ $command == *video || $command == scale ]] && options+=" --at"
        else
            mapfile -t COMPREPLY < <(compgen -f -- "$word")
            return
        fi
        ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
}
complete -o filenames -F _telvane_avfilter telvane-avfilter
