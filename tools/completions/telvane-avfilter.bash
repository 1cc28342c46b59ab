# bash completion for telvane-avfilter                                     -*- shell-script -*-

_telvane_avfilter() {
    local word=$2 previous=$3 command=${COMP_WORDS[1]} options
    COMPREPLY=()
    if ((COMP_CWORD == 1)); then
        mapfile -t COMPREPLY < <(compgen -W "audio mix-audio video mix-video scale probe --help --version" -- "$word")
        return
    fi
    case $previous in
    --at-end)
        [[ $command == mix-audio ]] && options="silence stop" || options="hold black stop"
        ;;
    --to) options="wav flac mp4 mkv y4m png raw" ;;
    --matrix) options="bt601 bt709 bt2020" ;;
    --range) options="tv pc" ;;
    --pixel-format) options="yuv420p yuv422p yuv444p rgb24 bgr24 rgba bgra gray nv12" ;;
    --length | --rate | --at | --from | --audio | --video) return ;;
    --pass)
        options="none in"
        ;;
    =) # the file of --in NAME=FILE: the shell splits words there
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
        return
        ;;
    *)
        if [[ $word == -* ]]; then
            options="--help --json --verbose --from"
            [[ $command == probe ]] && options+=" --audio --video"
            [[ $command != probe ]] && options+=" --to --length --pass --explain --quiet"
            [[ $command == mix-* ]] && options+=" --in --at-end"
            [[ $command == *video || $command == scale ]] && options+=" --rate --at"
            [[ $command == *video ]] && options+=" --matrix --range"
            [[ $command == scale ]] && options+=" --pixel-format"
        else
            mapfile -t COMPREPLY < <(compgen -f -- "$word")
            return
        fi
        ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
}
complete -o filenames -F _telvane_avfilter telvane-avfilter
